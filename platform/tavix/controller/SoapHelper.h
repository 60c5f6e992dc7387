/// @file
/// The device's TLS provisioning: its client certificate and whether the older protocol is on.
#pragma once

#include <tavix/Export.h>

#include <string>

namespace tavix::controller {

/// @brief What the uploader's transfer takes from the TLS provisioning.
///
/// Both read the controller settings afresh at each call; unreadable settings read as unset.
class TAVIX_EXPORT SoapHelper {
public:
    static std::string GetClientCertFile(); ///< `client_cert_file`: certificate and key, PEM; empty: none
    static bool GetDisableTLS();            ///< `disable_tls`: the older protocol is configured
};

} // namespace tavix::controller
