/// @file
/// The users of an account: the list of their links, and one user's record. Both clients take
/// a whole URL: the list URL is AccountResponse::usersURL, a user URL one of the list's links.
#pragma once

#include <restclient/IWebResponse.h>
#include <restclient/RequestEngine.h>
#include <restclient/veltrun/TavixErrorResponse.h>

#include <string>
#include <vector>

namespace tavix::restclient::account {

/// @brief One user's record.
class RESTCLIENT_EXPORT AccountUserResponse : public IWebResponse {
public:
    /// Overwrites every field from the "user" member; a missing key reads as "" or false. A
    /// value jsoncpp cannot convert (an object for a string, say), or a document or "user" that
    /// is not an object, throws Json::LogicError.
    void handleResponse(Json::Value const& document) override;

    std::string eMail;     ///< "eMail"
    std::string firstName; ///< "firstName"
    std::string lastName;  ///< "lastName"
    bool extUser = false;  ///< "extUser": an external user
    bool isOwner = false;  ///< "isOwner": the account's owner
};

/// @brief The account's user list: one link per user.
class RESTCLIENT_EXPORT AccountUserListResponse : public IWebResponse {
public:
    /// The `@totalCount` text of "users" decides the shape of "user": none at 0 or below, one
    /// object at 1, an array from 2 on. A count that is not a strict 32-bit decimal throws
    /// boost::bad_lexical_cast, a shape jsoncpp refuses Json::LogicError (both leave
    /// `io_context::run()`). Empties the list first.
    void handleResponse(Json::Value const& document) override;

    std::vector<std::string> userURLs; ///< the users' links, for AccountUserClient
};

/// @brief Asks for an account's user list.
///
/// @warning One object delivers exactly ONE completion in its life: a second request on it is
/// accepted (it returns success) but its answer is dropped without a callback, so a blocking wait
/// for it never ends, and nothing is logged. Use a new client object per request.
///
/// Keep the object alive until its callback has run (destroying it first drops the completion);
/// the io_context must outlive it. The callback runs on a thread that runs the io_context; what a
/// document handler or the callback throws leaves `io_context::run()` (see RestClient).
class RESTCLIENT_EXPORT AccountUserListClient {
public:
    /// The engine; its Callback is this client's callback type.
    using Engine = RestClient<AccountUserListResponse, veltrun::TavixErrorResponse>;

    /// @param io       runs the exchange and the callback; must outlive the client
    /// @param callback called once with the answer (see RestClient::Callback)
    /// @param url      the list's URL, AccountResponse::usersURL
    /// @param token    the bearer token
    AccountUserListClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& url,
                          std::string const& token);
    virtual ~AccountUserListClient() = default;

    /// GET of the URL as it stands, with "Bearer <token>" even when the token is empty.
    /// @return the url_category() error of an address that does not parse: nothing is sent and
    /// no callback comes. Otherwise the error of starting the exchange (settings, proxy, a refused
    /// header value; also reported to the callback), or success: the answer comes to the callback.
    boost::system::error_code getUserList();

private:
    Engine m_engine;
    std::string m_url;
    std::string m_token;
};

/// @brief Asks for one user's record.
///
/// @warning One object delivers exactly ONE completion in its life: a second request on it is
/// accepted (it returns success) but its answer is dropped without a callback, so a blocking wait
/// for it never ends, and nothing is logged. Use a new client object per request.
///
/// Keep the object alive until its callback has run (destroying it first drops the completion);
/// the io_context must outlive it. The callback runs on a thread that runs the io_context; what a
/// document handler or the callback throws leaves `io_context::run()` (see RestClient).
class RESTCLIENT_EXPORT AccountUserClient {
public:
    /// The engine; its Callback is this client's callback type.
    using Engine = RestClient<AccountUserResponse, veltrun::TavixErrorResponse>;

    /// @param io       runs the exchange and the callback; must outlive the client
    /// @param callback called once with the answer (see RestClient::Callback)
    /// @param url      the user's URL, one of AccountUserListResponse::userURLs
    /// @param token    the bearer token
    AccountUserClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& url,
                      std::string const& token);
    virtual ~AccountUserClient() = default;

    /// GET of the URL as it stands, with "Bearer <token>" even when the token is empty.
    /// @return the url_category() error of an address that does not parse: nothing is sent and
    /// no callback comes. Otherwise the error of starting the exchange (settings, proxy, a refused
    /// header value; also reported to the callback), or success: the answer comes to the callback.
    boost::system::error_code getUser();

private:
    Engine m_engine;
    std::string m_url;
    std::string m_token;
};

} // namespace tavix::restclient::account
