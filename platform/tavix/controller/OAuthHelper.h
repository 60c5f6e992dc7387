/// @file
/// The controller's process-wide store of OAuth tokens, one record per application key.
/// Handles to a record stay valid for the life of the process; `AuthToken::Set` overwrites a
/// record in place, so every holder of a handle sees the new token.
#pragma once

#include <tavix/Export.h>

#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace tavix::controller {

/// @brief One stored OAuth token: its text, type, scope and validity.
///
/// Every member is safe from any thread (each call locks the record); read the fields you need
/// together through one handle, since `Set` may run between two calls.
class TAVIX_EXPORT AuthToken {
public:
    /// @param token     the bearer token text
    /// @param tokenType as the service names it ("Bearer")
    /// @param scope     as the service granted it
    /// @param issued    when the token was issued, seconds since the epoch
    /// @param duration  how long it is valid, in seconds from `issued`
    AuthToken(std::string const& token, std::string const& tokenType, std::string const& scope, std::time_t issued,
              long duration);

    /// Overwrites every field at once (the workers mark a refused token expired with duration 0).
    void Set(std::string const& token, std::string const& tokenType, std::string const& scope, std::time_t issued,
             long duration);

    std::string GetToken() const;     ///< the bearer token text
    std::string GetTokenType() const; ///< "Bearer" for tokens the controller obtained
    std::string GetScope() const;     ///< the scope the service granted, as it said it
    std::time_t GetIssued() const;    ///< seconds since the epoch
    long GetDuration() const;         ///< seconds of validity from GetIssued(); expired once past

private:
    mutable std::mutex m_mutex;
    std::string m_token;
    std::string m_tokenType;
    std::string m_scope;
    std::time_t m_issued;
    long m_duration;
};

/// A handle to a stored token record; valid for the life of the process.
using AuthTokenPtr = std::shared_ptr<AuthToken>;

/// @brief The process-wide token store through which the workers share tokens: AuthRenew and
/// AuthenticationServiceClient write it, the uploader reads it.
///
/// All members are safe from any thread.
class TAVIX_EXPORT OAuthHelper {
public:
    /// The one store. Never destroyed, so that a worker still running while the process exits
    /// finds it intact.
    static OAuthHelper& Instance();

    /// The key's record, or null when none was ever stored (or it was removed).
    AuthTokenPtr GetAuthToken(std::string const& appKey) const;
    /// Stores a token for the key: a new record, or the existing one overwritten in place.
    void SetAuthToken(std::string const& appKey, std::string const& token, std::string const& tokenType,
                      std::string const& scope, std::time_t issued, long duration);
    /// Forgets the key's record (a handle already given out keeps its last value).
    void RemoveAuthToken(std::string const& appKey);

private:
    OAuthHelper() = default;

    mutable std::mutex m_mutex;
    std::map<std::string, AuthTokenPtr> m_tokens;
};

} // namespace tavix::controller
