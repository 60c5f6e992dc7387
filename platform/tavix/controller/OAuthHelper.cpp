#include <tavix/controller/OAuthHelper.h>

namespace tavix::controller {

AuthToken::AuthToken(std::string const& token, std::string const& tokenType, std::string const& scope,
                     std::time_t issued, long duration)
    : m_token(token), m_tokenType(tokenType), m_scope(scope), m_issued(issued), m_duration(duration)
{}

void AuthToken::Set(std::string const& token, std::string const& tokenType, std::string const& scope,
                    std::time_t issued, long duration)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_token = token;
    m_tokenType = tokenType;
    m_scope = scope;
    m_issued = issued;
    m_duration = duration;
}

std::string AuthToken::GetToken() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_token;
}

std::string AuthToken::GetTokenType() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_tokenType;
}

std::string AuthToken::GetScope() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_scope;
}

std::time_t AuthToken::GetIssued() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_issued;
}

long AuthToken::GetDuration() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_duration;
}

OAuthHelper& OAuthHelper::Instance()
{
    // Leaked on purpose: no destructor runs at exit while a worker may still use the store.
    static OAuthHelper* const instance = new OAuthHelper;
    return *instance;
}

AuthTokenPtr OAuthHelper::GetAuthToken(std::string const& appKey) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto const found = m_tokens.find(appKey);
    return found == m_tokens.end() ? nullptr : found->second;
}

void OAuthHelper::SetAuthToken(std::string const& appKey, std::string const& token, std::string const& tokenType,
                               std::string const& scope, std::time_t issued, long duration)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    AuthTokenPtr& record = m_tokens[appKey];
    if (record) record->Set(token, tokenType, scope, issued, duration);
    else record = std::make_shared<AuthToken>(token, tokenType, scope, issued, duration);
}

void OAuthHelper::RemoveAuthToken(std::string const& appKey)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_tokens.erase(appKey);
}

} // namespace tavix::controller
