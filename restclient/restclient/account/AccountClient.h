/// @file
/// The account service's "current account" request, and the two service links its answer
/// carries: where the Storage service and the account's user list live.
#pragma once

#include <restclient/IWebResponse.h>
#include <restclient/RequestEngine.h>
#include <restclient/veltrun/TavixErrorResponse.h>

#include <string>

namespace tavix::restclient::account {

/// @brief The current account's answer: the service links it carries.
class RESTCLIENT_EXPORT AccountResponse : public IWebResponse {
public:
    /// Takes the `@href` of the links named "storage" and "users" under "account"/"links"/"link"
    /// (the last one of a name wins). The "link" member must be an array (or missing): an object
    /// or a scalar, like any member of the path that is not an object, throws Json::LogicError.
    void handleResponse(Json::Value const& document) override;

    std::string storageURL; ///< the Storage service's URL (for split_URL); empty when not given
    std::string usersURL;   ///< the account's user list, for AccountUserListClient; empty when not given
};

/// @brief Asks the Account service for the current account (the token's), which says where the
/// Storage service is.
///
/// @warning One object delivers exactly ONE completion in its life: a second request on it is
/// accepted (it returns success) but its answer is dropped without a callback, so a blocking wait
/// for it never ends, and nothing is logged. Use a new client object per request.
///
/// Keep the object alive until its callback has run (destroying it first drops the completion);
/// the io_context must outlive it. The callback runs on a thread that runs the io_context; what a
/// document handler or the callback throws leaves `io_context::run()` (see RestClient).
class RESTCLIENT_EXPORT AccountClient {
public:
    /// The engine; its Callback is this client's callback type.
    using Engine = RestClient<AccountResponse, veltrun::TavixErrorResponse>;

    /// @param io       runs the exchange and the callback; must outlive the client
    /// @param callback called once with the answer (see RestClient::Callback)
    /// @param host, port, tls, path the Account service's address (as split_URL cuts it)
    /// @param token    sent as "Bearer <token>", even when empty
    AccountClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host, unsigned int port,
                  std::string const& token, bool tls, std::string const& path);
    virtual ~AccountClient() = default;

    /// GET `scheme://host:port/path/accounts/current`. A leading "/" of the path is kept,
    /// so a path cut by split_URL yields a doubled slash.
    /// @return the url_category() error of an address that does not parse: nothing is sent and
    /// no callback comes. Otherwise the error of starting the exchange (settings, proxy, a refused
    /// header value; also reported to the callback), or success: the answer comes to the callback.
    boost::system::error_code getCurrent();

private:
    Engine m_engine;
    std::string m_host;
    unsigned int m_port;
    std::string m_token;
    bool m_tls;
    std::string m_path;
};

} // namespace tavix::restclient::account
