#include <tavix/controller/LocatorServiceClient.h>

#include <tavix/controller/Settings.h>

namespace tavix::controller {

std::string LocatorServiceClient::LocatorServiceUrl() { return Settings::current().locatorUrl; }

} // namespace tavix::controller
