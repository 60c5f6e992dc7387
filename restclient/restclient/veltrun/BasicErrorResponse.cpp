#include <restclient/veltrun/BasicErrorResponse.h>

namespace tavix::restclient::veltrun {

BasicErrorResponse::BasicErrorResponse() : message("message", "") {}

void BasicErrorResponse::handleResponse(Json::Value const& document) { message.deserialize(document); }

} // namespace tavix::restclient::veltrun
