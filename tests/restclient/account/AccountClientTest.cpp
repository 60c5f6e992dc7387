#include <restclient/account/AccountClient.h>

#include <restclient/account/SplitUrl.h>
#include <tests/support/Loopback.h>

namespace tavix::restclient::account {
namespace {

using test::json;
using Completion = test::Completion<AccountResponse, veltrun::TavixErrorResponse>;

TEST(AccountResponse, TakesTheNamedLinksTheLastOfANameWinning)
{
    AccountResponse account;
    account.handleResponse(json(R"({"account": {"links": {"link": [
        {"@name": "storage", "@href": "s1"}, {"@name": "users", "@href": "u"}, {"@name": "other", "@href": "o"},
        {"@name": ["storage"], "@href": "a"}, {"@name": "storage", "@href": "s2"}, {"@name": "users"}]}}})"));
    EXPECT_EQ(account.storageURL, "s2");
    EXPECT_EQ(account.usersURL, "");

    AccountResponse empty;
    empty.handleResponse(json(R"({"account": {"id": "1"}})"));
    EXPECT_EQ(empty.storageURL + empty.usersURL, "");
    // A single link object is iterated over its members, which are no links.
    EXPECT_THROW(empty.handleResponse(json(R"({"account": {"links": {"link": {"@name": "storage"}}}})")),
                 Json::LogicError);
}

class AccountClientTest : public test::LoopbackTest {};

TEST_F(AccountClientTest, GetsTheCurrentAccountAtThePathSplitUrlCut)
{
    std::string splitHost, path, accountPart;
    unsigned int port = 0;
    bool tls = true;
    ASSERT_TRUE(split_URL(cloud.accountUrl() + "/v1/rest/accounts/1001", splitHost, port, tls, path, accountPart));

    Completion done;
    AccountClient client(io, done.callback(), splitHost, port, token, tls, path);
    ASSERT_FALSE(client.getCurrent());
    ASSERT_TRUE(done.wait(io));
    EXPECT_EQ(done.status, 200u);
    EXPECT_EQ(done.response.storageURL, cloud.storageUrl());
    EXPECT_EQ(done.response.usersURL, cloud.usersUrl());
    auto const request = onlyRequest();
    EXPECT_EQ(request.requestLine, "GET //account/v1/rest/accounts/accounts/current HTTP/1.1");
    expectJsonHeaders(request, "Bearer " + token);
}

TEST_F(AccountClientTest, AnUnparsableUrlIsReturnedAndNothingIsSent)
{
    Completion done;
    AccountClient client(io, done.callback(), "bad host", cloud.port(), token, false, "v1");
    EXPECT_TRUE(client.getCurrent());
    expectNothingSent(done);
}

} // namespace
} // namespace tavix::restclient::account
