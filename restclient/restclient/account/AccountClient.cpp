#include <restclient/account/AccountClient.h>

#include <restclient/detail/RequestSetup.h>

namespace tavix::restclient::account {

void AccountResponse::handleResponse(Json::Value const& document)
{
    static Json::Value const storage("storage");
    static Json::Value const users("users");
    for (Json::Value const& link : document["account"]["links"]["link"]) {
        Json::Value const& name = link["@name"];
        if (name == storage) {
            storageURL = link["@href"].asString();
        } else if (name == users) {
            usersURL = link["@href"].asString();
        }
    }
}

AccountClient::AccountClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host,
                             unsigned int port, std::string const& token, bool tls, std::string const& path)
    : m_engine(io, std::move(callback)), m_host(host), m_port(port), m_token(token), m_tls(tls), m_path(path)
{}

boost::system::error_code AccountClient::getCurrent()
{
    std::string const text = detail::serviceUrl(m_tls, m_host, m_port, m_path, "/accounts/current");
    if (auto ec = detail::prepareJsonRequest(m_engine, text, "Bearer " + m_token)) return ec;
    return m_engine.asyncRequest(boost::beast::http::verb::get);
}

} // namespace tavix::restclient::account
