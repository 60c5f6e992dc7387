/// @file
/// A decoded answer of a service: success and error documents fill themselves from the body.
#pragma once

#include <restclient/Export.h>

#include <json/value.h>

namespace tavix::restclient {

/// @brief A success or error document of a service, as the request engine fills it.
class RESTCLIENT_EXPORT IWebResponse {
public:
    /// Fills the fields from the parsed body; called once, on the io_context's thread, with
    /// whatever JSON the server sent (untrusted). May throw (jsoncpp's Json::LogicError on a
    /// document of the wrong shape): see RestClient for where that surfaces.
    virtual void handleResponse(Json::Value const& document) = 0;
    virtual ~IWebResponse() = default;
};

} // namespace tavix::restclient
