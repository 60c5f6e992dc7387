#include <restclient/httplite/RegistrationClient.h>

#include <tests/support/Loopback.h>

namespace tavix::restclient::httplite {
namespace {

using testing::hook;
using Completion = testing::Completion<RegistrationResponse, veltrun::TavixErrorResponse>;

RegistrationRequest registration(std::string const& ip, int port)
{
    RegistrationRequest request;
    request.ip.value = ip;
    request.port.value = port;
    return request;
}

TEST(RegistrationDocuments, BodyAndFieldKinds)
{
    EXPECT_EQ(RegistrationRequest().getPayload(), R"({"ip":"","port":0})");

    RegistrationResponse response;
    response.handleResponse(testing::json(R"({"port": "5060", "contactStatus": 1, "validSeconds": 60,
        "activeCallCount": 2, "linkKey": "k", "ip": 7, "createdTime": "t0"})"));
    EXPECT_EQ(response.port.value, 0);
    EXPECT_FALSE(response.contactStatus.value);
    EXPECT_EQ(response.validSeconds.value + response.activeCallCount.value, 62);
    EXPECT_EQ(response.linkKey.value + response.ip.value + response.createdTime.value, "kt0");
}

class RegistrationClientTest : public testing::LoopbackTest {};

TEST_F(RegistrationClientTest, PutsThenDeletesTheRegistration)
{
    Completion updated;
    RegistrationClient update(io, updated.callback(), host, cloud.port(), token, false, "/httplite");
    ASSERT_FALSE(update.updateRegistration(registration("10.0.0.7", 5060)));
    ASSERT_TRUE(updated.wait(io));
    EXPECT_EQ(updated.status, 200u);
    EXPECT_EQ(updated.response.contact.value, "10.0.0.7:5060");
    EXPECT_EQ(updated.response.port.value, 5060);
    EXPECT_TRUE(updated.response.contactStatus.value);
    auto const put = onlyRequest();
    EXPECT_EQ(put.requestLine, "PUT //httplite/registrations/current HTTP/1.1");
    EXPECT_EQ(put.body, R"({"ip":"10.0.0.7","port":5060})");
    EXPECT_EQ(put.header("Content-Length"), "29");
    expectJsonHeaders(put, "Bearer " + token);

    cloud.server().clearRequests();
    Completion deleted;
    RegistrationClient remove(io, deleted.callback(), host, cloud.port(), token, false, "/httplite");
    ASSERT_FALSE(remove.deleteRegistration());
    ASSERT_TRUE(deleted.wait(io));
    EXPECT_EQ(deleted.status, 200u);
    EXPECT_EQ(deleted.response.linkKey.value, updated.response.linkKey.value);
    auto const del = onlyRequest();
    EXPECT_EQ(del.requestLine, "DELETE //httplite/registrations/current HTTP/1.1");
    EXPECT_EQ(del.body, "");
    EXPECT_EQ(del.header("Content-Length"), std::nullopt);
    EXPECT_TRUE(cloud.registration().isNull());
}

TEST_F(RegistrationClientTest, WithoutTokenTheHookSignsMethodUrlAndBody)
{
    hook().answer = "Signed reg";
    cloud.acceptAuthorization("Signed reg");
    Completion updated;
    RegistrationClient update(io, updated.callback(), host, cloud.port(), "", false, "hl");
    update.authCallback(&testing::recordingHook);
    ASSERT_FALSE(update.updateRegistration(registration("::1", 1)));
    ASSERT_TRUE(updated.wait(io));
    EXPECT_EQ(hook().method + " " + hook().url, "PUT " + cloud.baseUrl() + "/hl/registrations/current");
    EXPECT_EQ(hook().body, R"({"ip":"::1","port":1})");
    expectJsonHeaders(onlyRequest(), "Signed reg");

    Completion deleted;
    RegistrationClient remove(io, deleted.callback(), host, cloud.port(), "", false, "hl");
    remove.authCallback(&testing::recordingHook);
    ASSERT_FALSE(remove.deleteRegistration());
    ASSERT_TRUE(deleted.wait(io));
    EXPECT_EQ(hook().method + hook().body, "DELETE");
    EXPECT_EQ(deleted.status, 200u);
}

TEST_F(RegistrationClientTest, DeletingNothingReportsTheError)
{
    Completion deleted;
    RegistrationClient remove(io, deleted.callback(), host, cloud.port(), token, false, "hl");
    ASSERT_FALSE(remove.deleteRegistration());
    ASSERT_TRUE(deleted.wait(io));
    EXPECT_EQ(deleted.status, 404u);
    EXPECT_EQ(deleted.error.message.value, "No registration");
    EXPECT_EQ(deleted.error.subCode.value, 5u);
}

TEST_F(RegistrationClientTest, AnUnparsableUrlIsReturnedAndNothingIsSent)
{
    Completion done;
    RegistrationClient client(io, done.callback(), "bad host", cloud.port(), token, false, "hl");
    EXPECT_TRUE(client.updateRegistration(registration("10.0.0.7", 5060)));
    EXPECT_TRUE(client.deleteRegistration());
    expectNothingSent(done);
}

} // namespace
} // namespace tavix::restclient::httplite
