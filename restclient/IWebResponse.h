// A decoded answer of a service: success and error documents fill themselves from the body.
#pragma once

#include <platform/Export.h>

#include <json/value.h>

namespace tavix::restclient {

class TAVIX_EXPORT IWebResponse {
public:
    virtual void handleResponse(Json::Value const& document) = 0;
    virtual ~IWebResponse() = default;
};

} // namespace tavix::restclient
