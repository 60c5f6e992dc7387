// The users of an account: the list of their links, and one user's record. Both clients take
// a whole URL: the list URL is AccountResponse::usersURL, a user URL one of the list's links.
#pragma once

#include <restclient/IWebResponse.h>
#include <restclient/RequestEngine.h>
#include <restclient/veltrun/TavixErrorResponse.h>

#include <string>
#include <vector>

namespace tavix::restclient::account {

class RESTCLIENT_EXPORT AccountUserResponse : public IWebResponse {
public:
    // Overwrites every field from the "user" member; a missing key reads as "" or false.
    void handleResponse(Json::Value const& document) override;

    std::string eMail;
    std::string firstName;
    std::string lastName;
    bool extUser = false;
    bool isOwner = false;
};

class RESTCLIENT_EXPORT AccountUserListResponse : public IWebResponse {
public:
    // The "@totalCount" text of "users" decides the shape of "user": none at 0 or below, one
    // object at 1, an array from 2 on. A count that is not a strict 32-bit decimal throws
    // boost::bad_lexical_cast.
    void handleResponse(Json::Value const& document) override;

    std::vector<std::string> userURLs;
};

class RESTCLIENT_EXPORT AccountUserListClient {
public:
    using Engine = RestClient<AccountUserListResponse, veltrun::TavixErrorResponse>;

    AccountUserListClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& url,
                          std::string const& token);
    virtual ~AccountUserListClient() = default;

    // GET of the URL as it stands, with "Bearer <token>" even when the token is empty.
    boost::system::error_code getUserList();

private:
    Engine m_engine;
    std::string m_url;
    std::string m_token;
};

class RESTCLIENT_EXPORT AccountUserClient {
public:
    using Engine = RestClient<AccountUserResponse, veltrun::TavixErrorResponse>;

    AccountUserClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& url,
                      std::string const& token);
    virtual ~AccountUserClient() = default;

    // GET of the URL as it stands, with "Bearer <token>" even when the token is empty.
    boost::system::error_code getUser();

private:
    Engine m_engine;
    std::string m_url;
    std::string m_token;
};

} // namespace tavix::restclient::account
