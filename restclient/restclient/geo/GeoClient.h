/// @file
/// The geo service: in which country the device stands. Its errors are bare messages
/// (BasicErrorResponse), and the client is built from a whole URL or from host, port and path.
#pragma once

#include <restclient/AuthCallback.h>
#include <restclient/IWebResponse.h>
#include <restclient/RequestEngine.h>
#include <restclient/Value.h>
#include <restclient/veltrun/BasicErrorResponse.h>

#include <string>

namespace tavix::restclient::geo {

/// @brief Where the device stands, as the geo service sees it.
class RESTCLIENT_EXPORT GeoResponse : public IWebResponse {
public:
    /// Both fields empty.
    GeoResponse();

    /// Top-level "country" and "countryIso", each taken only when it is a JSON string. A JSON
    /// body that is not an object throws Json::LogicError.
    void handleResponse(Json::Value const& document) override;

    Value<std::string> country;    ///< the country's name
    Value<std::string> countryIso; ///< its ISO code
};

/// @brief Asks the geo service in which country the device stands.
///
/// @warning One object delivers exactly ONE completion in its life: a second request on it is
/// accepted (it returns success) but its answer is dropped without a callback, so a blocking wait
/// for it never ends, and nothing is logged. Use a new client object per request.
///
/// Keep the object alive until its callback has run (destroying it first drops the completion);
/// the io_context must outlive it. The callback runs on a thread that runs the io_context; what a
/// document handler or the callback throws leaves `io_context::run()` (see RestClient).
class RESTCLIENT_EXPORT GeoClient {
public:
    /// The engine; its Callback is this client's callback type.
    using Engine = RestClient<GeoResponse, veltrun::BasicErrorResponse>;

    /// The URL names the geo resource itself; the port is 0 and `tls` is not consulted.
    /// @param io       runs the exchange and the callback; must outlive the client
    /// @param callback called once with the answer (see RestClient::Callback)
    /// @param url      the whole request URL
    /// @param token    the bearer token; empty: the authCallback signs, or no Authorization
    /// @param tls      kept only
    GeoClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& url, std::string const& token,
              bool tls);
    /// The URL is composed from these on the first getGeo and kept:
    /// `http[s]://host:port/path` (https when `tls`).
    GeoClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host, unsigned int port,
              std::string const& token, bool tls, std::string const& path);
    virtual ~GeoClient() = default;

    /// The signing hook, consulted only while the client holds no bearer token.
    void authCallback(AuthCallback callback) { m_authCallback = callback; }

    /// The request URL: as given, or as composed by the first getGeo (empty before it).
    std::string const& url() const { return m_url; }

    /// GET of the URL. Only a URL that does not parse is reported here; the error of starting
    /// the request is dropped, as in the locator clients.
    /// @return only the url_category() error of an address that does not parse (nothing is sent,
    /// no callback comes). The error of starting the exchange is deliberately not returned: it
    /// reaches the callback (on the object's first request).
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
