#include <restclient/locator/LocationClient.h>

#include <tests/support/Loopback.h>

namespace tavix::restclient::locator {
namespace {

using test::hook;
using test::json;

TEST(Endpoint, WritesAllThreeKeys)
{
    JsonWriter writer;
    Endpoint().serialize(writer);
    EXPECT_EQ(json(writer.str(false)), json(R"({"serviceName": "", "endPointURLType": "", "endPointURL": ""})"));
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

class LocationClientTest : public test::LoopbackTest {
protected:
    using Completion = test::Completion<LocationResponse, veltrun::TavixErrorResponse>;

    Completion lookUp(std::string const& clientToken, std::string const& name)
    {
        Completion done;
        LocationClient client(io, done.callback(), host, cloud.port(), clientToken, false, "/locator/rest");
        client.authCallback(&test::recordingHook);
        EXPECT_FALSE(client.getLocation(name));
        EXPECT_TRUE(done.wait(io));
        return done;
    }
};

TEST_F(LocationClientTest, TheTokenWinsOverTheHookWhichSignsWithoutOne)
{
    hook().answer = "Signed x";
    Completion const done = lookUp(token, "ACCOUNT");
    EXPECT_EQ(done.response.endpoint.endPointURL.value, cloud.accountUrl());
    EXPECT_EQ(hook().calls, 0);
    EXPECT_EQ(onlyRequest().requestLine, "GET //locator/rest/locations/ACCOUNT HTTP/1.1");
    expectJsonHeaders(onlyRequest(), "Bearer " + token);

    cloud.reset();
    cloud.acceptAuthorization("Signed x");
    Completion const hooked = lookUp("", "a/b?c");
    EXPECT_EQ(hook().method + " " + hook().url + "|" + hook().body,
              "GET " + cloud.baseUrl() + "//locator/rest/locations/a/b?c|");
    EXPECT_EQ(hook().headers, 0u);
    EXPECT_EQ(onlyRequest().requestLine, "GET //locator/rest/locations/a/b?c HTTP/1.1");
    EXPECT_EQ(onlyRequest().header("Authorization"), "Signed x");
    EXPECT_EQ(hooked.status, 404u);
    EXPECT_EQ(hooked.error.message.value, "No location for service a/b?c");

    // An empty answer from the hook sends no Authorization at all.
    cloud.reset();
    hook().answer = "";
    Completion const refused = lookUp("", "ACCOUNT");
    EXPECT_EQ(onlyRequest().header("Authorization"), std::nullopt);
    EXPECT_EQ(refused.status, 401u);
    EXPECT_EQ(refused.error.subCode.value, 1u);
}

TEST_F(LocationClientTest, ListsWithBearerEvenWithoutTokenAndTheUserAgentOnlyWhenSet)
{
    for (std::string const& clientToken : {token, std::string()}) {
        cloud.reset();
        test::Completion<LocationsResponse, veltrun::TavixErrorResponse> done;
        LocationsClient client(io, done.callback(), host, cloud.port(), clientToken, false, "locator/rest");
        if (clientToken.empty()) client.userAgent("controller/1.0");
        ASSERT_FALSE(client.getLocations());
        ASSERT_TRUE(done.wait(io));
        auto const request = onlyRequest();
        EXPECT_EQ(request.requestLine, "GET /locator/rest/locations HTTP/1.1");
        // "Bearer " with the trailing blank that the HTTP layer drops, as HTTP has it.
        EXPECT_EQ(request.header("Authorization"), clientToken.empty() ? "Bearer" : "Bearer " + token);
        EXPECT_EQ(request.header("User-Agent"),
                  clientToken.empty() ? std::optional<std::string>("controller/1.0") : std::nullopt);
        EXPECT_EQ(done.response.endpoints.size(), clientToken.empty() ? 0u : 5u);
    }
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
