/// @file
/// The locator service: the endpoint of one named service, or the list of endpoints.
#pragma once

#include <restclient/AuthCallback.h>
#include <restclient/IWebResponse.h>
#include <restclient/RequestEngine.h>
#include <restclient/locator/Endpoint.h>
#include <restclient/veltrun/TavixErrorResponse.h>

#include <string>
#include <vector>

namespace tavix::restclient::locator {

/// @brief The Locator's answer for one service.
class RESTCLIENT_EXPORT LocationResponse : public IWebResponse {
public:
    /// Reads `endpoint` from "tavixServerEndpoint"; a missing member leaves it empty. A JSON body
    /// that is not an object throws Json::LogicError.
    void handleResponse(Json::Value const& document) override;

    Endpoint endpoint; ///< the service's endpoint
};

/// @brief The Locator's list of endpoints.
class RESTCLIENT_EXPORT LocationsResponse : public IWebResponse {
public:
    /// Appends one endpoint per element of a "tavixServerEndpoint" array, or one for a single
    /// object; never clears what is already there. A JSON body that is not an object throws
    /// Json::LogicError.
    void handleResponse(Json::Value const& document) override;

    std::vector<Endpoint> endpoints; ///< in the answer's order
};

/// @brief Asks the Locator where one named service is (the uploader asks for "ACCOUNT").
///
/// @warning One object delivers exactly ONE completion in its life: a second request on it is
/// accepted (it returns success) but its answer is dropped without a callback, so a blocking wait
/// for it never ends, and nothing is logged. Use a new client object per request.
///
/// Keep the object alive until its callback has run (destroying it first drops the completion);
/// the io_context must outlive it. The callback runs on a thread that runs the io_context; what a
/// document handler or the callback throws leaves `io_context::run()` (see RestClient).
class RESTCLIENT_EXPORT LocationClient {
public:
    /// The engine; its Callback is this client's callback type.
    using Engine = RestClient<LocationResponse, veltrun::TavixErrorResponse>;

    /// @param io       runs the exchange and the callback; must outlive the client
    /// @param callback called once with the answer (see RestClient::Callback)
    /// @param host, port, tls, path the service's address: `http[s]://host:port/path`
    /// @param token    sent as "Bearer <token>"; empty: the authCallback signs, or no Authorization
    LocationClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host, unsigned int port,
                   std::string const& token, bool tls, std::string const& path);
    virtual ~LocationClient() = default;

    /// The signing hook, consulted only while the client holds no bearer token.
    void authCallback(AuthCallback callback) { m_authCallback = callback; }
    /// Sent as "User-Agent" when not empty; empty by default.
    void userAgent(std::string const& value) { m_userAgent = value; }

    /// GET `scheme://host:port/path/locations/serviceName`, the name unescaped. Only a
    /// URL that does not parse is reported here; the error of starting the request is dropped.
    /// @return only the url_category() error of an address that does not parse (nothing is sent,
    /// no callback comes). The error of starting the exchange is deliberately not returned: it
    /// reaches the callback (on the object's first request).
    boost::system::error_code getLocation(std::string const& serviceName);

private:
    std::string m_userAgent;
    Engine m_engine;
    std::string m_host;
    unsigned int m_port;
    std::string m_token;
    AuthCallback m_authCallback = nullptr;
    bool m_tls;
    std::string m_path;
};

/// @brief Asks the Locator for every endpoint it knows.
///
/// @warning One object delivers exactly ONE completion in its life: a second request on it is
/// accepted (it returns success) but its answer is dropped without a callback, so a blocking wait
/// for it never ends, and nothing is logged. Use a new client object per request.
///
/// Keep the object alive until its callback has run (destroying it first drops the completion);
/// the io_context must outlive it. The callback runs on a thread that runs the io_context; what a
/// document handler or the callback throws leaves `io_context::run()` (see RestClient).
class RESTCLIENT_EXPORT LocationsClient {
public:
    /// The engine; its Callback is this client's callback type.
    using Engine = RestClient<LocationsResponse, veltrun::TavixErrorResponse>;

    /// @param io       runs the exchange and the callback; must outlive the client
    /// @param callback called once with the answer (see RestClient::Callback)
    /// @param host, port, tls, path the Locator's address: `http[s]://host:port/path`
    /// @param token    sent as "Bearer <token>", even when empty
    LocationsClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host, unsigned int port,
                    std::string const& token, bool tls, std::string const& path);
    virtual ~LocationsClient() = default;

    /// Sent as "User-Agent" when not empty; empty by default.
    void userAgent(std::string const& value) { m_userAgent = value; }

    /// GET `scheme://host:port/path/locations` with "Bearer <token>", even when the token
    /// is empty. Only a URL that does not parse is reported here, as in LocationClient.
    /// @return only the url_category() error of an address that does not parse (nothing is sent,
    /// no callback comes). The error of starting the exchange is deliberately not returned: it
    /// reaches the callback (on the object's first request).
    boost::system::error_code getLocations();

private:
    std::string m_userAgent;
    Engine m_engine;
    std::string m_host;
    unsigned int m_port;
    std::string m_token;
    bool m_tls;
    std::string m_path;
};

} // namespace tavix::restclient::locator
