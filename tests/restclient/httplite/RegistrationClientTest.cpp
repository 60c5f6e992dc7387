#include <restclient/httplite/RegistrationClient.h>

#include <tests/support/Loopback.h>

namespace tavix::restclient::httplite {
namespace {

using test::hook;
using Completion = test::Completion<RegistrationResponse, veltrun::TavixErrorResponse>;

RegistrationRequest registration(std::string const& ip, int port)
{
    RegistrationRequest request;
    request.ip.value = ip;
    request.port.value = port;
    return request;
}

TEST(RegistrationResponse, EachFieldTakesOnlyItsKind)
{
    RegistrationResponse response;
    response.handleResponse(test::json(R"({"port": "5060", "contactStatus": 1, "validSeconds": 60,
        "activeCallCount": 2, "linkKey": "k", "ip": 7, "createdTime": "t0"})"));
    EXPECT_EQ(response.port.value, 0);
    EXPECT_FALSE(response.contactStatus.value);
    EXPECT_EQ(response.validSeconds.value + response.activeCallCount.value, 62);
    EXPECT_EQ(response.linkKey.value + response.ip.value + response.createdTime.value, "kt0");
}

class RegistrationClientTest : public test::LoopbackTest {
protected:
    // One call (update or delete) on a fresh client below `path`, waited for.
    Completion send(std::string const& clientToken, std::string const& path, bool update)
    {
        Completion done;
        RegistrationClient client(io, done.callback(), host, cloud.port(), clientToken, false, path);
        client.authCallback(&test::recordingHook);
        EXPECT_FALSE(update ? client.updateRegistration(registration("10.0.0.7", 5060)) : client.deleteRegistration());
        EXPECT_TRUE(done.wait(io));
        return done;
    }
};

TEST_F(RegistrationClientTest, PutsThenDeletesTheRegistrationThenReadsTheError)
{
    Completion const updated = send(token, "/httplite", true);
    EXPECT_EQ(updated.response.contact.value, "10.0.0.7:5060");
    EXPECT_TRUE(updated.response.contactStatus.value);
    EXPECT_EQ(onlyRequest().requestLine, "PUT //httplite/registrations/current HTTP/1.1");
    EXPECT_EQ(onlyRequest().body, R"({"ip":"10.0.0.7","port":5060})");
    expectJsonHeaders(onlyRequest(), "Bearer " + token);

    cloud.server().clearRequests();
    Completion const deleted = send(token, "/httplite", false);
    EXPECT_EQ(deleted.response.linkKey.value, updated.response.linkKey.value);
    EXPECT_EQ(onlyRequest().requestLine, "DELETE //httplite/registrations/current HTTP/1.1");
    EXPECT_EQ(onlyRequest().header("Content-Length"), std::nullopt);
    EXPECT_EQ(onlyRequest().header("Authorization"), "Bearer " + token);
    EXPECT_TRUE(cloud.registration().isNull());

    Completion const again = send(token, "/httplite", false);
    EXPECT_EQ(again.status, 404u);
    EXPECT_EQ(again.error.message.value, "No registration");
}

TEST_F(RegistrationClientTest, WithoutTokenTheHookSignsMethodUrlAndBody)
{
    hook().answer = "Signed reg";
    cloud.acceptAuthorization("Signed reg");
    EXPECT_EQ(send("", "hl", true).status, 200u);
    EXPECT_EQ(hook().method + " " + hook().url + " " + hook().body,
              "PUT " + cloud.baseUrl() + R"(/hl/registrations/current {"ip":"10.0.0.7","port":5060})");
    EXPECT_EQ(onlyRequest().header("Authorization"), "Signed reg");
    EXPECT_EQ(send("", "hl", false).status, 200u);
    EXPECT_EQ(hook().method + hook().body, "DELETE");
}

TEST_F(RegistrationClientTest, AnUnparsableUrlIsReturnedAndNothingIsSent)
{
    Completion done;
    RegistrationClient client(io, done.callback(), "bad host", cloud.port(), token, false, "hl");
    EXPECT_TRUE(client.updateRegistration(registration("10.0.0.7", 5060)));
    expectNothingSent(done);
}

} // namespace
} // namespace tavix::restclient::httplite
