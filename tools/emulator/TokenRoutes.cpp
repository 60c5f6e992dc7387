#include <tools/emulator/TokenRoutes.h>

#include <boost/algorithm/string/predicate.hpp>

#include <algorithm>
#include <map>

namespace tavix::emulator {
namespace {

// The token endpoint's own error shape (RFC 6749, 5.2), whatever the services use.
Response oauthError(Request const& request, http::status status, std::string const& error,
                    std::string const& description)
{
    Json::Value document(Json::objectValue);
    document["error"] = error;
    document["error_description"] = description;
    Response response = jsonReply(request, status, document);
    response.set(http::field::cache_control, "no-store");
    if (status == http::status::unauthorized)
        response.set(http::field::www_authenticate, "Basic realm=\"restclient-emulator\"");
    return response;
}

} // namespace

TokenBook::TokenBook(EmulatorConfig const& config) : m_config(config)
{
    for (std::string const& token : config.tokens) accept(token);
}

TokenBook::Standing TokenBook::standing(std::string const& token) const
{
    auto it = m_expiries.find(token);
    if (it == m_expiries.end()) return Standing::unknown;
    if (it->second && m_config.enforceTokenExpiry && Clock::now() >= *it->second) return Standing::expired;
    return Standing::valid;
}

std::string TokenBook::issue()
{
    std::string token = randomHex(20);
    m_expiries[token] = Clock::now() + m_config.tokenLifetime;
    return token;
}

void TokenBook::accept(std::string const& token) { m_expiries[token] = std::nullopt; }
void TokenBook::revoke(std::string const& token) { m_expiries.erase(token); }

Response TokenBook::tokenRoute(RoutedRequest const& route)
{
    Request const& request = route.request;
    if (request.method() != http::verb::post) {
        Response refused =
            oauthError(request, http::status::method_not_allowed, "invalid_request", "The token endpoint takes POST");
        refused.set(http::field::allow, "POST");
        return refused;
    }
    auto const type = request[http::field::content_type];
    if (!boost::algorithm::istarts_with(type, "application/x-www-form-urlencoded"))
        return oauthError(request, http::status::bad_request, "invalid_request",
                          "The body must be application/x-www-form-urlencoded");
    std::map<std::string, std::string> form;
    for (auto const& [name, value] : formPairs(request.body()))
        if (!form.emplace(name, value).second)
            return oauthError(request, http::status::bad_request, "invalid_request", "Repeated parameter " + name);
    auto field = [&](char const* name) -> std::optional<std::string> {
        auto it = form.find(name);
        if (it == form.end()) return std::nullopt;
        return it->second;
    };
    std::optional<std::string> const grant = field("grant_type"), client = field("client_id");
    if (!grant) return oauthError(request, http::status::bad_request, "invalid_request", "Missing grant_type");
    if (*grant != "client_credentials")
        return oauthError(request, http::status::bad_request, "unsupported_grant_type",
                          "Only client_credentials is supported");
    if (!client || client->empty())
        return oauthError(request, http::status::unauthorized, "invalid_client", "Missing client_id");
    auto const& allowed = m_config.clientIds;
    if (!allowed.empty() && std::find(allowed.begin(), allowed.end(), *client) == allowed.end())
        return oauthError(request, http::status::unauthorized, "invalid_client", "Unknown client_id");

    Json::Value document(Json::objectValue);
    document["access_token"] = issue();
    document["token_type"] = "Bearer";
    document["expires_in"] = Json::Int64(m_config.tokenLifetime.count());
    Response response = jsonReply(request, http::status::ok, document);
    response.set(http::field::cache_control, "no-store");
    return response;
}

} // namespace tavix::emulator
