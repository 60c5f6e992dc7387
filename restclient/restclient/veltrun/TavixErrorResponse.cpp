#include <restclient/veltrun/TavixErrorResponse.h>

namespace tavix::restclient::veltrun {

TavixErrorResponse::TavixErrorResponse()
    : code("code", 0), details("details", ""), message("message", ""), subCode("subCode", 0)
{}

void TavixErrorResponse::handleResponse(Json::Value const& document)
{
    static char const* const wrapper = "TavixErrorResponse";
    handleError(document.isMember(wrapper) ? document[wrapper] : document);
}

void TavixErrorResponse::handleError(Json::Value const& error)
{
    code.deserialize(error);
    details.deserialize(error);
    message.deserialize(error);
    subCode.deserialize(error);
}

} // namespace tavix::restclient::veltrun
