#include <restclient/locator/LocationClient.h>

#include <fmt/format.h>

namespace tavix::restclient::locator {

namespace {

char const* const endpointKey = "tavixServerEndpoint";

void finishRequest(net::http::HttpRequest& request, std::string const& userAgent)
{
    if (!userAgent.empty()) request.setField("User-Agent", userAgent);
    request.accept("application/json");
    request.contentType("application/json");
}

} // namespace

void LocationResponse::handleResponse(Json::Value const& document) { endpoint.deserialize(document[endpointKey]); }

void LocationsResponse::handleResponse(Json::Value const& document)
{
    if (!document.isMember(endpointKey)) return;
    Json::Value const& found = document[endpointKey];
    if (!found.isArray()) {
        endpoints.emplace_back().deserialize(found);
        return;
    }
    for (Json::ArrayIndex i = 0; i < found.size(); ++i) endpoints.emplace_back().deserialize(found[i]);
}

LocationClient::LocationClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host,
                               unsigned int port, std::string const& token, bool tls, std::string const& path)
    : m_engine(io, std::move(callback)), m_host(host), m_port(port), m_token(token), m_tls(tls), m_path(path)
{
}

boost::system::error_code LocationClient::getLocation(std::string const& serviceName)
{
    boost::system::error_code ec;
    std::string const text =
        fmt::format("{}://{}:{}/{}/locations/{}", m_tls ? "https" : "http", m_host, m_port, m_path, serviceName);
    net::http::Url const url = net::http::Url::createUrl(text, ec);
    if (ec) return ec;

    m_engine.request().url(url);
    std::string const authorization = authorizationFor(m_token, m_authCallback, "GET", url.toString(), "");
    if (!authorization.empty()) m_engine.authorization(authorization);
    finishRequest(m_engine.request(), m_userAgent);
    // Deliberately dropped: once the URL is made, the lookup reports success.
    m_engine.asyncRequest(boost::beast::http::verb::get);
    return {};
}

LocationsClient::LocationsClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host,
                                 unsigned int port, std::string const& token, bool tls, std::string const& path)
    : m_engine(io, std::move(callback)), m_host(host), m_port(port), m_token(token), m_tls(tls), m_path(path)
{
}

boost::system::error_code LocationsClient::getLocations()
{
    boost::system::error_code ec;
    std::string const text = fmt::format("{}://{}:{}/{}/locations", m_tls ? "https" : "http", m_host, m_port, m_path);
    net::http::Url const url = net::http::Url::createUrl(text, ec);
    if (ec) return ec;

    m_engine.request().url(url);
    m_engine.request().setField("Authorization", "Bearer " + m_token);
    finishRequest(m_engine.request(), m_userAgent);
    // Deliberately dropped, as in LocationClient.
    m_engine.asyncRequest(boost::beast::http::verb::get);
    return {};
}

} // namespace tavix::restclient::locator
