#include <tavix/controller/SoapHelper.h>

#include <tavix/controller/Settings.h>

namespace tavix::controller {

std::string SoapHelper::GetClientCertFile() { return Settings::current().clientCertFile; }

bool SoapHelper::GetDisableTLS() { return Settings::current().disableTls; }

} // namespace tavix::controller
