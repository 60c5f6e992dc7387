// A request body that renders itself as JSON text.
#pragma once

#include <restclient/Export.h>

#include <string>

namespace tavix::restclient {

class RESTCLIENT_EXPORT IWebRequest {
public:
    virtual std::string getPayload() const = 0;
    virtual ~IWebRequest() = default;
};

} // namespace tavix::restclient
