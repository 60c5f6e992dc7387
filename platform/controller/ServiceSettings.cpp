#include <platform/controller/ServiceSettings.h>

#include <platform/controller/Settings.h>

namespace tavix::controller {

namespace {

// Read at each call: a re-provisioned device needs no restart. Unreadable reads as empty.
Settings current()
{
    boost::system::error_code ignored;
    return Settings::load(ignored);
}

} // namespace

std::string LocatorServiceClient::LocatorServiceUrl() { return current().locatorUrl; }

std::string SoapHelper::GetClientCertFile() { return current().clientCertFile; }

bool SoapHelper::GetDisableTLS() { return current().disableTls; }

std::string CommonName::GetCommonName() { return current().commonName; }

} // namespace tavix::controller
