#include <restclient/account/AccountUserClient.h>

#include <tests/support/Loopback.h>

#include <boost/lexical_cast.hpp>

namespace tavix::restclient::account {
namespace {

using test::json;
using List = std::vector<std::string>;

List links(std::string const& count, std::string const& user, List stale = {})
{
    AccountUserListResponse list;
    list.userURLs = std::move(stale);
    Json::Value document = json(R"({"users": {"user": )" + user + "}}");
    if (count != "none") document["users"]["@totalCount"] = count;
    list.handleResponse(document);
    return list.userURLs;
}

TEST(AccountUserListResponse, TheCountDecidesTheShapeOfUser)
{
    EXPECT_EQ(links("none", R"([{"@href": "a"}])", {"stale"}), List{});
    EXPECT_EQ(links("1", R"({"@href": "a"})"), List{"a"});
    EXPECT_EQ(links("3", R"([{"@href": "a"}, {"@href": "b"}])"), (List{"a", "b"}));
    EXPECT_EQ(links("+2", R"([{"@href": "a"}, {"@href": "b"}])"), (List{"a", "b"}));
    EXPECT_EQ(links("-1", R"([{"@href": "a"}])"), List{});
    EXPECT_THROW(links("1", R"([{"@href": "a"}])"), Json::LogicError);
    for (char const* bad : {"2 ", "2x", "", " 2", "2147483648"}) {
        EXPECT_THROW(links(bad, R"([{"@href": "a"}, {"@href": "b"}])"), boost::bad_lexical_cast) << bad;
    }
    AccountUserListResponse none;
    none.handleResponse(json("{}"));
    EXPECT_TRUE(none.userURLs.empty());
}

TEST(AccountUserResponse, EveryCallOverwritesAndMissingKeysReadAsEmptyAndFalse)
{
    AccountUserResponse user;
    user.handleResponse(json(R"({"user": {"eMail": "e", "firstName": "f", "isOwner": true}})"));
    EXPECT_TRUE(user.isOwner);
    user.handleResponse(json(R"({"user": {"lastName": "l", "extUser": true}})"));
    EXPECT_EQ(user.eMail + user.firstName + user.lastName, "l");
    EXPECT_TRUE(user.extUser);
    EXPECT_FALSE(user.isOwner);
}

class AccountUserClientTest : public test::LoopbackTest {};

TEST_F(AccountUserClientTest, ListsTheUsersThenFetchesOne)
{
    test::Completion<AccountUserListResponse, veltrun::TavixErrorResponse> listed;
    AccountUserListClient list(io, listed.callback(), cloud.usersUrl(), token);
    ASSERT_FALSE(list.getUserList());
    ASSERT_TRUE(listed.wait(io));
    ASSERT_EQ(listed.response.userURLs, List{cloud.usersUrl() + "/1"});
    EXPECT_EQ(onlyRequest().requestLine, "GET /account/v1/rest/accounts/1001/users HTTP/1.1");
    expectJsonHeaders(onlyRequest(), "Bearer " + token);

    cloud.reset();
    test::Completion<AccountUserResponse, veltrun::TavixErrorResponse> fetched;
    AccountUserClient user(io, fetched.callback(), listed.response.userURLs[0], token);
    ASSERT_FALSE(user.getUser());
    ASSERT_TRUE(fetched.wait(io));
    EXPECT_EQ(fetched.response.eMail, "owner@example.com");
    EXPECT_EQ(onlyRequest().requestLine, "GET /account/v1/rest/accounts/1001/users/1 HTTP/1.1");
    EXPECT_EQ(onlyRequest().header("Authorization"), "Bearer " + token);
}

TEST_F(AccountUserClientTest, AnUnparsableUrlIsReturnedAndNothingIsSent)
{
    test::Completion<AccountUserResponse, veltrun::TavixErrorResponse> done;
    AccountUserClient user(io, done.callback(), "http://bad host/users/1", token);
    AccountUserListClient list(io, {}, "http://bad host/users", token);
    EXPECT_TRUE(user.getUser());
    EXPECT_TRUE(list.getUserList());
    expectNothingSent(done);
}

TEST_F(AccountUserClientTest, AnEmptyTokenStillSendsBearerAndTheBareErrorIsRead)
{
    cloud.replyNext(401, R"({"code": 401, "subCode": 1, "message": "Invalid or expired token"})");
    test::Completion<AccountUserListResponse, veltrun::TavixErrorResponse> done;
    AccountUserListClient list(io, done.callback(), cloud.usersUrl(), "");
    ASSERT_FALSE(list.getUserList());
    ASSERT_TRUE(done.wait(io));
    EXPECT_EQ(done.status, 401u);
    EXPECT_EQ(done.error.message.value, "Invalid or expired token");
    // "Bearer " with the trailing blank that the HTTP layer drops, as HTTP has it.
    EXPECT_EQ(onlyRequest().header("Authorization"), "Bearer");
}

} // namespace
} // namespace tavix::restclient::account
