// The account service's "current account" request, and the two service links its answer
// carries: where the Storage service and the account's user list live.
#pragma once

#include <restclient/IWebResponse.h>
#include <restclient/RequestEngine.h>
#include <restclient/veltrun/TavixErrorResponse.h>

#include <string>

namespace tavix::restclient::account {

class RESTCLIENT_EXPORT AccountResponse : public IWebResponse {
public:
    // Takes the "@href" of the links named "storage" and "users" under "account"/"links"/"link"
    // (the last one of a name wins). The "link" member must be an array.
    void handleResponse(Json::Value const& document) override;

    std::string storageURL;
    std::string usersURL;
};

class RESTCLIENT_EXPORT AccountClient {
public:
    using Engine = RestClient<AccountResponse, veltrun::TavixErrorResponse>;

    AccountClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host, unsigned int port,
                  std::string const& token, bool tls, std::string const& path);
    virtual ~AccountClient() = default;

    // GET <scheme>://<host>:<port>/<path>/accounts/current. A leading "/" of the path is kept,
    // so a path cut by split_URL yields a doubled slash. Returns the URL error (nothing sent)
    // or the error of starting the request.
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
