/// @file
/// A request body that renders itself as JSON text.
#pragma once

#include <restclient/Export.h>

#include <string>

namespace tavix::restclient {

/// @brief A request body: what the clients that send one (StoreClient, RegistrationClient) take.
class RESTCLIENT_EXPORT IWebRequest {
public:
    /// The body as JSON text, sent as it is.
    virtual std::string getPayload() const = 0;
    virtual ~IWebRequest() = default;
};

} // namespace tavix::restclient
