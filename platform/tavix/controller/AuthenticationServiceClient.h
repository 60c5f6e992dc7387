/// @file
/// Authenticates the controller with OAuth 2.0 client credentials against `auth_url` of the
/// controller settings and keeps the token in the OAuthHelper store.
#pragma once

#include <tavix/Export.h>

#include <boost/function.hpp>

#include <string>

namespace tavix::controller {

/// @brief The token request of the controller: what the workers call when a token is missing,
/// expired or refused.
class TAVIX_EXPORT AuthenticationServiceClient {
public:
    /// Asks `auth_url` for a token for `appKey` and stores it in OAuthHelper::Instance().
    ///
    /// Blocks the calling thread for at most the HTTP client's connect and exchange time-outs
    /// (it runs a private io_context). Never throws: an unexpected exception becomes EIO with
    /// its text.
    /// @param appKey  the OAuth client id; also the key of the stored token.
    /// @param message set to the reason on failure, cleared on success.
    /// @return 0: the token is stored for `appKey`. Otherwise the HTTP status of a refusal
    /// (message: the answer's "error_description", else "error", else the status line); 200
    /// when a 200 answer is not a usable token (message "malformed token answer: ..."); or the
    /// value of a transport error, of a settings error (SettingsError: `message` names the file),
    /// EDESTADDRREQ for no `auth_url`, or the url_category() value of an `auth_url` that does not
    /// parse. The category is not returned: compare with the message when the value is ambiguous.
    static int AuthenticateController(std::string const& appKey, std::string& message);
    /// The same, given up when `cancelled` returns true (asked at least every 100 ms): the request
    /// is closed and ECANCELED returned with "Authentication cancelled.".
    static int AuthenticateController(std::string const& appKey, std::string& message,
                                      boost::function<bool()> const& cancelled);
    /// Sets up now what a token request uses and exit tears down (OpenSSL, the logger, the token
    /// store), so that an exit handler registered afterwards runs before their clean-up.
    static void PrepareForExitHandlers();
};

} // namespace tavix::controller
