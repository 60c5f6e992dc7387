// The locator service: the endpoint of one named service, or the list of endpoints.
#pragma once

#include <restclient/AuthCallback.h>
#include <restclient/IWebResponse.h>
#include <restclient/RequestEngine.h>
#include <restclient/locator/Endpoint.h>
#include <restclient/veltrun/TavixErrorResponse.h>

#include <string>
#include <vector>

namespace tavix::restclient::locator {

class RESTCLIENT_EXPORT LocationResponse : public IWebResponse {
public:
    // Reads `endpoint` from "tavixServerEndpoint"; a missing member leaves it empty.
    void handleResponse(Json::Value const& document) override;

    Endpoint endpoint;
};

class RESTCLIENT_EXPORT LocationsResponse : public IWebResponse {
public:
    // Appends one endpoint per element of a "tavixServerEndpoint" array, or one for a single
    // object; never clears what is already there.
    void handleResponse(Json::Value const& document) override;

    std::vector<Endpoint> endpoints;
};

class RESTCLIENT_EXPORT LocationClient {
public:
    using Engine = RestClient<LocationResponse, veltrun::TavixErrorResponse>;

    LocationClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host, unsigned int port,
                   std::string const& token, bool tls, std::string const& path);
    virtual ~LocationClient() = default;

    // Consulted only while the client holds no bearer token.
    void authCallback(AuthCallback callback) { m_authCallback = callback; }
    // Sent as "User-Agent" when not empty; empty by default.
    void userAgent(std::string const& value) { m_userAgent = value; }

    // GET <scheme>://<host>:<port>/<path>/locations/<serviceName>, the name unescaped. Only a
    // URL that does not parse is reported here; the error of starting the request is dropped.
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

class RESTCLIENT_EXPORT LocationsClient {
public:
    using Engine = RestClient<LocationsResponse, veltrun::TavixErrorResponse>;

    LocationsClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host, unsigned int port,
                    std::string const& token, bool tls, std::string const& path);
    virtual ~LocationsClient() = default;

    // Sent as "User-Agent" when not empty; empty by default.
    void userAgent(std::string const& value) { m_userAgent = value; }

    // GET <scheme>://<host>:<port>/<path>/locations with "Bearer <token>", even when the token
    // is empty. Only a URL that does not parse is reported here, as in LocationClient.
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
