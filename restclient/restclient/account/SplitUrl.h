/// @file
/// Cuts a configured service URL such as "https://svc:8443/v1/accounts/42" into the pieces the
/// host-and-port clients are built from.
#pragma once

#include <restclient/Export.h>

#include <string>

namespace tavix::restclient::account {

/// Cuts `url` into the host-and-port clients' pieces. False (outputs untouched) when `url`
/// holds no "://". Every scheme except "http" counts as TLS; a missing port is 443 or 80 by
/// that flag. `path` gets everything from the first "/" after the host ("" when none), leading
/// "/" included. When the path holds "accounts/", `path` is cut to end with "accounts" and
/// `accountPart` gets what follows; otherwise `accountPart` is left as it was. Nothing is
/// checked beyond that: an empty host, or a port that is not a number (read as 0), is returned
/// as found.
RESTCLIENT_EXPORT bool split_URL(std::string const& url, std::string& host, unsigned int& port, bool& tls,
                                 std::string& path, std::string& accountPart);

} // namespace tavix::restclient::account
