// The error document the geo service sends with any status other than 200: a bare message.
#pragma once

#include <restclient/IWebResponse.h>
#include <restclient/Value.h>

namespace tavix::restclient::veltrun {

class RESTCLIENT_EXPORT BasicErrorResponse : public IWebResponse {
public:
    BasicErrorResponse();

    void handleResponse(Json::Value const& document) override;

    Value<std::string> message;
};

} // namespace tavix::restclient::veltrun
