// Authenticates the controller with OAuth 2.0 client credentials against `auth_url` of the
// controller settings and keeps the token in the OAuthHelper store.
#pragma once

#include <tavix/Export.h>

#include <boost/function.hpp>

#include <string>

namespace tavix::controller {

class TAVIX_EXPORT AuthenticationServiceClient {
public:
    // Blocks the calling thread for at most the HTTP client's connect and exchange time-outs.
    // 0: the token is stored for `appKey`. Otherwise the HTTP status of a refusal (message:
    // the answer's "error_description", else "error", else the status line), or the code of a
    // transport or settings failure (message: its text).
    static int AuthenticateController(std::string const& appKey, std::string& message);
    // The same, given up when `cancelled` returns true (asked at least every 100 ms): the request
    // is closed and ECANCELED returned with "Authentication cancelled.".
    static int AuthenticateController(std::string const& appKey, std::string& message,
                                      boost::function<bool()> const& cancelled);
    // Sets up now what a token request uses and exit tears down (OpenSSL, the logger, the token
    // store), so that an exit handler registered afterwards runs before their clean-up.
    static void PrepareForExitHandlers();
};

} // namespace tavix::controller
