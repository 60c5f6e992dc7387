// The httplite registration of a device: the address and port at which it can be reached,
// written with PUT and withdrawn with DELETE on "/registrations/current".
#pragma once

#include <restclient/AuthCallback.h>
#include <restclient/IWebRequest.h>
#include <restclient/IWebResponse.h>
#include <restclient/RequestEngine.h>
#include <restclient/Value.h>
#include <restclient/veltrun/TavixErrorResponse.h>

#include <string>

namespace tavix::restclient::httplite {

class RESTCLIENT_EXPORT RegistrationRequest : public IWebRequest {
public:
    RegistrationRequest();

    // Compact {"ip": "<ip>", "port": <port>}.
    std::string getPayload() const override;

    Value<std::string> ip;
    Value<int> port;
};

// The state of the registration as the service holds it; times are the service's text.
class RESTCLIENT_EXPORT RegistrationResponse : public IWebResponse {
public:
    RegistrationResponse();

    // Takes each top-level member only when it has the field's JSON kind.
    void handleResponse(Json::Value const& document) override;

    Value<int> activeCallCount;
    Value<std::string> contact;
    Value<bool> contactStatus;
    Value<std::string> createdTime;
    Value<std::string> expiryTime;
    Value<std::string> ip;
    Value<std::string> lastUpdateTime;
    Value<std::string> linkKey;
    Value<int> port;
    Value<int> validSeconds;
};

// Only the first request of a client object reaches the callback: use one object per request.
class RESTCLIENT_EXPORT RegistrationClient {
public:
    using Engine = RestClient<RegistrationResponse, veltrun::TavixErrorResponse>;

    RegistrationClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host,
                       unsigned int port, std::string const& token, bool tls, std::string const& path);
    virtual ~RegistrationClient() = default;

    // Consulted only while the client holds no bearer token.
    void authCallback(AuthCallback callback) { m_authCallback = callback; }

    // PUT <scheme>://<host>:<port>/<path>/registrations/current with the request's body.
    boost::system::error_code updateRegistration(RegistrationRequest const& request);
    // DELETE of the same resource, without a body.
    boost::system::error_code deleteRegistration();

private:
    boost::system::error_code send(boost::beast::http::verb verb, RegistrationRequest const* body);

    Engine m_engine;
    std::string m_host;
    unsigned int m_port;
    std::string m_token;
    AuthCallback m_authCallback = nullptr;
    bool m_tls;
    std::string m_path;
};

} // namespace tavix::restclient::httplite
