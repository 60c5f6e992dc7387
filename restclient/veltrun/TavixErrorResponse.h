// The error documents services send with any status other than 200: the platform's
// structured error (code, details, message, subCode), bare or wrapped in a
// "TavixErrorResponse" member, and the geo service's bare message.
#pragma once

#include <restclient/IWebResponse.h>
#include <restclient/Value.h>

namespace tavix::restclient::veltrun {

class RESTCLIENT_EXPORT TavixErrorResponse : public IWebResponse {
public:
    TavixErrorResponse();
    TavixErrorResponse(TavixErrorResponse const& other) = default;
    TavixErrorResponse& operator=(TavixErrorResponse const& other) = default;

    void handleResponse(Json::Value const& document) override;
    // Reads the four fields from one error object.
    void handleError(Json::Value const& error);

    Value<unsigned int> code;
    Value<std::string> details;
    Value<std::string> message;
    Value<unsigned int> subCode;
};

class RESTCLIENT_EXPORT BasicErrorResponse : public IWebResponse {
public:
    BasicErrorResponse();

    void handleResponse(Json::Value const& document) override;

    Value<std::string> message;
};

} // namespace tavix::restclient::veltrun
