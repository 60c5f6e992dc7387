/// @file
/// The error document the geo service sends with any status other than 200: a bare message.
#pragma once

#include <restclient/IWebResponse.h>
#include <restclient/Value.h>

namespace tavix::restclient::veltrun {

/// @brief The geo service's error document.
class RESTCLIENT_EXPORT BasicErrorResponse : public IWebResponse {
public:
    /// An empty message.
    BasicErrorResponse();

    /// Takes a top-level string "message"; otherwise it stays empty. A JSON body that is not an
    /// object (an array, a number) throws Json::LogicError.
    void handleResponse(Json::Value const& document) override;

    Value<std::string> message; ///< the service's text
};

} // namespace tavix::restclient::veltrun
