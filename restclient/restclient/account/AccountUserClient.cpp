#include <restclient/account/AccountUserClient.h>

#include <restclient/detail/RequestSetup.h>

#include <boost/lexical_cast.hpp>

namespace tavix::restclient::account {

namespace {

template <typename Engine>
boost::system::error_code getWithBearer(Engine& engine, std::string const& text, std::string const& token)
{
    if (auto ec = detail::prepareJsonRequest(engine, text, "Bearer " + token)) return ec;
    return engine.asyncRequest(boost::beast::http::verb::get);
}

} // namespace

void AccountUserResponse::handleResponse(Json::Value const& document)
{
    Json::Value const& user = document["user"];
    eMail = user["eMail"].asString();
    firstName = user["firstName"].asString();
    lastName = user["lastName"].asString();
    extUser = user["extUser"].asBool();
    isOwner = user["isOwner"].asBool();
}

void AccountUserListResponse::handleResponse(Json::Value const& document)
{
    userURLs.clear();
    Json::Value const& users = document["users"];
    Json::Value const& user = users["user"];
    // The service sends the count as text.
    int const count = boost::lexical_cast<int>(users.get("@totalCount", "0").asString());
    if (count <= 0) return;
    if (count == 1) {
        userURLs.push_back(user["@href"].asString());
        return;
    }
    for (Json::ArrayIndex i = 0; i < user.size(); ++i) userURLs.push_back(user[i]["@href"].asString());
}

AccountUserListClient::AccountUserListClient(boost::asio::io_context& io, Engine::Callback callback,
                                             std::string const& url, std::string const& token)
    : m_engine(io, std::move(callback)), m_url(url), m_token(token)
{}

boost::system::error_code AccountUserListClient::getUserList() { return getWithBearer(m_engine, m_url, m_token); }

AccountUserClient::AccountUserClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& url,
                                     std::string const& token)
    : m_engine(io, std::move(callback)), m_url(url), m_token(token)
{}

boost::system::error_code AccountUserClient::getUser() { return getWithBearer(m_engine, m_url, m_token); }

} // namespace tavix::restclient::account
