// What the SOAP-era controller services tell about the device's provisioning, read from the
// controller settings file afresh at each call (an unreadable file reads as nothing set).
#pragma once

#include <platform/Export.h>

#include <string>

namespace tavix::controller {

class TAVIX_EXPORT LocatorServiceClient {
public:
    static std::string LocatorServiceUrl();  // locator_url
};

class TAVIX_EXPORT SoapHelper {
public:
    static std::string GetClientCertFile();  // client_cert_file: certificate and key, PEM
    static bool GetDisableTLS();             // disable_tls: the older protocol is configured
};

class TAVIX_EXPORT CommonName {
public:
    static std::string GetCommonName();  // common_name
};

} // namespace tavix::controller
