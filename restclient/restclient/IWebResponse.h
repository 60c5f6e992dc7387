// A decoded answer of a service: success and error documents fill themselves from the body.
#pragma once

#include <restclient/Export.h>

#include <json/value.h>

namespace tavix::restclient {

class RESTCLIENT_EXPORT IWebResponse {
public:
    virtual void handleResponse(Json::Value const& document) = 0;
    virtual ~IWebResponse() = default;
};

} // namespace tavix::restclient
