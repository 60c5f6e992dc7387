// The controller's process-wide store of OAuth tokens, one record per application key.
// Handles to a record stay valid for the life of the process; `AuthToken::Set` overwrites a
// record in place, so every holder of a handle sees the new token.
#pragma once

#include <tavix/Export.h>

#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace tavix::controller {

class TAVIX_EXPORT AuthToken {
public:
    AuthToken(std::string const& token, std::string const& tokenType, std::string const& scope, std::time_t issued,
              long duration);

    // Overwrites every field at once.
    void Set(std::string const& token, std::string const& tokenType, std::string const& scope, std::time_t issued,
             long duration);

    std::string GetToken() const;
    std::string GetTokenType() const;
    std::string GetScope() const;
    std::time_t GetIssued() const;
    long GetDuration() const; // seconds

private:
    mutable std::mutex m_mutex;
    std::string m_token;
    std::string m_tokenType;
    std::string m_scope;
    std::time_t m_issued;
    long m_duration;
};

using AuthTokenPtr = std::shared_ptr<AuthToken>;

class TAVIX_EXPORT OAuthHelper {
public:
    // Never destroyed, so that a worker still running while the process exits finds it intact.
    static OAuthHelper& Instance();

    // The key's record, or null when none was ever stored.
    AuthTokenPtr GetAuthToken(std::string const& appKey) const;
    // Stores a token for the key: a new record, or the existing one overwritten in place.
    void SetAuthToken(std::string const& appKey, std::string const& token, std::string const& tokenType,
                      std::string const& scope, std::time_t issued, long duration);
    // Forgets the key's record (a handle already given out keeps its last value).
    void RemoveAuthToken(std::string const& appKey);

private:
    OAuthHelper() = default;

    mutable std::mutex m_mutex;
    std::map<std::string, AuthTokenPtr> m_tokens;
};

} // namespace tavix::controller
