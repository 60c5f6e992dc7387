// The geo service: in which country the device stands. Its errors are bare messages
// (BasicErrorResponse), and the client is built from a whole URL or from host, port and path.
#pragma once

#include <restclient/AuthCallback.h>
#include <restclient/IWebResponse.h>
#include <restclient/RequestEngine.h>
#include <restclient/Value.h>
#include <restclient/veltrun/BasicErrorResponse.h>

#include <string>

namespace tavix::restclient::geo {

class RESTCLIENT_EXPORT GeoResponse : public IWebResponse {
public:
    GeoResponse();

    // Top-level "country" and "countryIso", each taken only when it is a JSON string.
    void handleResponse(Json::Value const& document) override;

    Value<std::string> country;
    Value<std::string> countryIso;
};

class RESTCLIENT_EXPORT GeoClient {
public:
    using Engine = RestClient<GeoResponse, veltrun::BasicErrorResponse>;

    // The URL names the geo resource itself; the port is 0.
    GeoClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& url, std::string const& token,
              bool tls);
    // The URL is composed from these on the first getGeo and kept.
    GeoClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host, unsigned int port,
              std::string const& token, bool tls, std::string const& path);
    virtual ~GeoClient() = default;

    // Consulted only while the client holds no bearer token.
    void authCallback(AuthCallback callback) { m_authCallback = callback; }

    // The request URL: as given, or as composed by the first getGeo (empty before it).
    std::string const& url() const { return m_url; }

    // GET of the URL. Only a URL that does not parse is reported here; the error of starting
    // the request is dropped, as in the locator clients.
    boost::system::error_code getGeo();

private:
    Engine m_engine;
    std::string m_url;
    std::string m_host;
    unsigned int m_port = 0;
    std::string m_token;
    AuthCallback m_authCallback = nullptr;
    bool m_tls;
    std::string m_path;
};

} // namespace tavix::restclient::geo
