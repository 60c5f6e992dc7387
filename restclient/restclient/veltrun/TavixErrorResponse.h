// The error document the platform's services send with any status other than 200: a structured
// error (code, details, message, subCode), bare or wrapped in a "TavixErrorResponse" member.
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

} // namespace tavix::restclient::veltrun
