#include <tavix/controller/CommonName.h>

#include <tavix/controller/Settings.h>

namespace tavix::controller {

std::string CommonName::GetCommonName() { return Settings::current().commonName; }

} // namespace tavix::controller
