#include <restclient/geo/GeoClient.h>

#include <tests/support/Loopback.h>

namespace tavix::restclient::geo {
namespace {

using test::hook;
using Completion = test::Completion<GeoResponse, veltrun::BasicErrorResponse>;

class GeoClientTest : public test::LoopbackTest {};

TEST_F(GeoClientTest, HostFormComposesAndKeepsTheUrlAndTheTokenWins)
{
    Completion done;
    GeoClient client(io, done.callback(), host, cloud.port(), token, false, "geo");
    client.authCallback(&test::recordingHook);
    ASSERT_FALSE(client.getGeo());
    ASSERT_TRUE(done.wait(io));
    EXPECT_EQ(client.url(), cloud.geoUrl());
    EXPECT_EQ(done.response.country.value + done.response.countryIso.value, "NorwayNO");
    EXPECT_EQ(hook().calls, 0);
    auto const request = onlyRequest();
    EXPECT_EQ(request.requestLine, "GET /geo HTTP/1.1");
    expectJsonHeaders(request, "Bearer " + token);
}

TEST_F(GeoClientTest, WithoutTokenTheHookSignsAndItsEmptyAnswerSendsNothing)
{
    hook().answer = "Signed geo";
    cloud.acceptAuthorization("Signed geo");
    Completion signedDone;
    GeoClient signedClient(io, signedDone.callback(), cloud.geoUrl(), "", false);
    signedClient.authCallback(&test::recordingHook);
    ASSERT_FALSE(signedClient.getGeo());
    ASSERT_TRUE(signedDone.wait(io));
    EXPECT_EQ(signedDone.status, 200u);
    EXPECT_EQ(hook().method + " " + hook().url + hook().body, "GET " + cloud.geoUrl());
    expectJsonHeaders(onlyRequest(), "Signed geo");

    cloud.reset();
    hook().answer = "";
    Completion done;
    GeoClient client(io, done.callback(), cloud.geoUrl(), "", false);
    client.authCallback(&test::recordingHook);
    ASSERT_FALSE(client.getGeo());
    ASSERT_TRUE(done.wait(io));
    EXPECT_EQ(done.status, 401u);
    EXPECT_EQ(done.error.message.value, "Missing Authorization header");
    expectJsonHeaders(onlyRequest(), std::nullopt);
}

TEST_F(GeoClientTest, OnlyAnUnparsableUrlIsReported)
{
    Completion done;
    GeoClient badHost(io, done.callback(), "bad host", cloud.port(), token, true, "geo");
    EXPECT_TRUE(badHost.getGeo());
    EXPECT_EQ(badHost.url(), "https://bad host:" + std::to_string(cloud.port()) + "/geo");
    // The HTTP client refuses to start this one: getGeo drops the error, the callback reports it.
    GeoClient unsupported(io, done.callback(), "ftp://127.0.0.1/geo", token, false);
    EXPECT_FALSE(unsupported.getGeo());
    ASSERT_TRUE(done.wait(io));
    EXPECT_TRUE(done.ec);
    EXPECT_TRUE(cloud.serviceRequests().empty());
}

} // namespace
} // namespace tavix::restclient::geo
