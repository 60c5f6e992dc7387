#include <restclient/locator/LocationClient.h>

#include <tests/support/Loopback.h>

namespace tavix::restclient::locator {
namespace {

using testing::hook;
using testing::json;

TEST(Endpoint, WritesAllThreeKeysAndReadsOnlyStrings)
{
    JsonWriter writer;
    Endpoint().serialize(writer);
    EXPECT_EQ(json(writer.str(false)), json(R"({"serviceName": "", "endPointURLType": "", "endPointURL": ""})"));

    LocationResponse location;
    location.handleResponse(json(R"({"tavixServerEndpoint": {"serviceName": "GEO", "endPointURL": 5}})"));
    EXPECT_EQ(location.endpoint.serviceName.value, "GEO");
    EXPECT_EQ(location.endpoint.endPointURL.value, "");
}

TEST(LocationsResponse, ReadsAnObjectAsAListOfOneAndAppends)
{
    LocationsResponse locations;
    for (char const* body : {R"({"tavixServerEndpoint": {"serviceName": "A"}})",
                             R"({"tavixServerEndpoint": [{"serviceName": "B"}, 3, {"serviceName": "C"}]})",
                             R"({"tavixServerEndpoint": []})", R"({"other": []})"}) {
        locations.handleResponse(json(body));
    }
    std::string names;
    for (Endpoint const& endpoint : locations.endpoints) names += endpoint.serviceName.value + ",";
    EXPECT_EQ(names, "A,B,,C,");
}

class LocationClientTest : public testing::LoopbackTest {
protected:
    using Completion = testing::Completion<LocationResponse, veltrun::TavixErrorResponse>;

    Completion lookUp(std::string const& clientToken, std::string const& name)
    {
        Completion done;
        LocationClient client(io, done.callback(), host, cloud.port(), clientToken, false, "/locator/rest");
        client.authCallback(&testing::recordingHook);
        EXPECT_FALSE(client.getLocation(name));
        EXPECT_TRUE(done.wait(io));
        return done;
    }
};

TEST_F(LocationClientTest, TheTokenWinsOverTheHook)
{
    hook().answer = "Signed x";
    Completion const done = lookUp(token, "ACCOUNT");
    EXPECT_EQ(done.status, 200u);
    EXPECT_EQ(done.response.endpoint.endPointURL.value, cloud.accountUrl());
    EXPECT_EQ(hook().calls, 0);
    auto const request = onlyRequest();
    EXPECT_EQ(request.requestLine, "GET //locator/rest/locations/ACCOUNT HTTP/1.1");
    expectJsonHeaders(request, "Bearer " + token);
}

TEST_F(LocationClientTest, WithoutTokenTheHookSignsAndItsEmptyAnswerSendsNothing)
{
    hook().answer = "Signed x";
    cloud.acceptAuthorization("Signed x");
    Completion const done = lookUp("", "a/b?c");
    EXPECT_EQ(hook().method + " " + hook().url, "GET " + cloud.baseUrl() + "//locator/rest/locations/a/b?c");
    EXPECT_EQ(hook().body, "");
    EXPECT_EQ(hook().headers, 0u);
    EXPECT_EQ(onlyRequest().target, "//locator/rest/locations/a/b?c");
    expectJsonHeaders(onlyRequest(), "Signed x");
    EXPECT_EQ(done.status, 404u);
    EXPECT_EQ(done.error.message.value, "No location for service a/b?c");

    cloud.reset();
    hook().answer = "";
    Completion const refused = lookUp("", "ACCOUNT");
    expectJsonHeaders(onlyRequest(), std::nullopt);
    EXPECT_EQ(refused.status, 401u);
    EXPECT_EQ(refused.error.subCode.value, 1u);
}

TEST_F(LocationClientTest, ListsEndpointsWithBearerEvenWithoutToken)
{
    for (std::string const& clientToken : {token, std::string()}) {
        cloud.reset();
        testing::Completion<LocationsResponse, veltrun::TavixErrorResponse> done;
        LocationsClient client(io, done.callback(), host, cloud.port(), clientToken, false, "locator/rest");
        ASSERT_FALSE(client.getLocations());
        ASSERT_TRUE(done.wait(io));
        auto const request = onlyRequest();
        EXPECT_EQ(request.requestLine, "GET /locator/rest/locations HTTP/1.1");
        // "Bearer " with the trailing blank that the HTTP layer drops, as HTTP has it.
        expectJsonHeaders(request, clientToken.empty() ? "Bearer" : "Bearer " + token);
        EXPECT_EQ(done.response.endpoints.size(), clientToken.empty() ? 0u : 5u);
    }
}

TEST_F(LocationClientTest, SendsTheUserAgentOnlyWhenSet)
{
    testing::Completion<LocationsResponse, veltrun::TavixErrorResponse> done;
    LocationsClient client(io, done.callback(), host, cloud.port(), token, false, "v1");
    client.userAgent("controller/1.0");
    ASSERT_FALSE(client.getLocations());
    ASSERT_TRUE(done.wait(io));
    EXPECT_EQ(onlyRequest().header("User-Agent"), "controller/1.0");
}

TEST_F(LocationClientTest, AnUnparsableUrlIsReturnedAndNothingIsSent)
{
    Completion done;
    LocationClient client(io, done.callback(), "bad host", cloud.port(), token, false, "v1");
    LocationsClient list(io, {}, "bad host", cloud.port(), token, false, "v1");
    EXPECT_TRUE(client.getLocation("ACCOUNT"));
    EXPECT_TRUE(list.getLocations());
    expectNothingSent(done);
}

} // namespace
} // namespace tavix::restclient::locator
