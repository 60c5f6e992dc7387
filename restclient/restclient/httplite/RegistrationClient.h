/// @file
/// The httplite registration of a device: the address and port at which it can be reached,
/// written with PUT and withdrawn with DELETE on "/registrations/current".
#pragma once

#include <restclient/AuthCallback.h>
#include <restclient/IWebRequest.h>
#include <restclient/IWebResponse.h>
#include <restclient/RequestEngine.h>
#include <restclient/Value.h>
#include <restclient/veltrun/TavixErrorResponse.h>

#include <string>

namespace tavix::restclient::httplite {

/// @brief Where the device can be reached: the body of a registration.
class RESTCLIENT_EXPORT RegistrationRequest : public IWebRequest {
public:
    /// An empty address, port 0.
    RegistrationRequest();

    /// Compact `{"ip": "<ip>", "port": <port>}`.
    std::string getPayload() const override;

    Value<std::string> ip; ///< the device's address
    Value<int> port;       ///< the port it listens on
};

/// @brief The state of the registration as the service holds it; times are the service's text.
class RESTCLIENT_EXPORT RegistrationResponse : public IWebResponse {
public:
    /// Every field empty or 0.
    RegistrationResponse();

    /// Takes each top-level member only when it has the field's JSON kind. A JSON body that is
    /// not an object throws Json::LogicError.
    void handleResponse(Json::Value const& document) override;

    Value<int> activeCallCount;        ///< "activeCallCount"
    Value<std::string> contact;        ///< "contact"
    Value<bool> contactStatus;         ///< "contactStatus"
    Value<std::string> createdTime;    ///< "createdTime"
    Value<std::string> expiryTime;     ///< "expiryTime": when the registration lapses
    Value<std::string> ip;             ///< "ip" as registered
    Value<std::string> lastUpdateTime; ///< "lastUpdateTime"
    Value<std::string> linkKey;        ///< "linkKey"
    Value<int> port;                   ///< "port" as registered
    Value<int> validSeconds;           ///< "validSeconds": how long a registration holds
};

/// @brief Writes or withdraws the device's httplite registration.
///
/// Only the first request of a client object reaches the callback: use one object per request.
/// @warning One object delivers exactly ONE completion in its life: a second request on it is
/// accepted (it returns success) but its answer is dropped without a callback, so a blocking wait
/// for it never ends, and nothing is logged. Use a new client object per request.
///
/// Keep the object alive until its callback has run (destroying it first drops the completion);
/// the io_context must outlive it. The callback runs on a thread that runs the io_context; what a
/// document handler or the callback throws leaves `io_context::run()` (see RestClient).
class RESTCLIENT_EXPORT RegistrationClient {
public:
    /// The engine; its Callback is this client's callback type.
    using Engine = RestClient<RegistrationResponse, veltrun::TavixErrorResponse>;

    /// @param io       runs the exchange and the callback; must outlive the client
    /// @param callback called once with the answer (see RestClient::Callback)
    /// @param host, port, tls, path the service's address: `http[s]://host:port/path`
    /// @param token    sent as "Bearer <token>"; empty: the authCallback signs, or no Authorization
    RegistrationClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host,
                       unsigned int port, std::string const& token, bool tls, std::string const& path);
    virtual ~RegistrationClient() = default;

    /// The signing hook, consulted only while the client holds no bearer token; it signs the
    /// method, URL and body.
    void authCallback(AuthCallback callback) { m_authCallback = callback; }

    /// PUT `scheme://host:port/path/registrations/current` with the request's body.
    /// @return the url_category() error of an address that does not parse: nothing is sent and
    /// no callback comes. Otherwise the error of starting the exchange (settings, proxy, a refused
    /// header value; also reported to the callback), or success: the answer comes to the callback.
    boost::system::error_code updateRegistration(RegistrationRequest const& request);
    /// DELETE of the same resource, without a body; returns as updateRegistration.
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
