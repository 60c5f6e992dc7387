// Cuts a configured service URL such as "https://svc:8443/v1/accounts/42" into the pieces the
// host-and-port clients are built from.
#pragma once

#include <restclient/Export.h>

#include <string>

namespace tavix::restclient::account {

// False (outputs untouched) when `url` holds no "://". Every scheme except "http" counts as
// TLS; a missing port is 443 or 80 by that flag. When the path holds "accounts/", `path` is
// cut to end with "accounts" and `accountPart` gets what follows; otherwise `accountPart` is
// left as it was.
RESTCLIENT_EXPORT bool split_URL(std::string const& url, std::string& host, unsigned int& port, bool& tls,
                                 std::string& path, std::string& accountPart);

} // namespace tavix::restclient::account
