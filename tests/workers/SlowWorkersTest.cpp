// The tests that wait out the workers' own pauses (10 seconds between transfer attempts, 10
// seconds before the renewer's first pass); apart, so that they run beside the others.
#include <tests/workers/UploaderFixture.h>

#include <restclient/authentication/AuthRenew.h>

#include <tavix/controller/OAuthHelper.h>

#include <ctime>
#include <thread>

namespace tavix::test {
namespace {

// Two pauses of 10 seconds, with room to spare.
constexpr std::chrono::seconds kRetryBound{90};

TEST_F(UploaderTest, TransferAnswered201IsRetriedThenFails)
{
    for (int i = 0; i < 3; ++i) cloud.scriptReply({201, "", "text/plain", "/blobs/"});
    auto uploader = start(makeFile("a.txt", "some bytes"));
    ASSERT_TRUE(uploader->WaitFinished(kRetryBound));
    expectOutcome(*uploader, 201, "Upload failed. Response code: 201");
    EXPECT_EQ(requestsTo("/blobs/"), 3u);
}

TEST_F(UploaderTest, RenewerGetsMissingAndLongExpiredTokensOnly)
{
    controller::OAuthHelper& store = controller::OAuthHelper::Instance();
    std::time_t const now = std::time(nullptr);
    store.SetAuthToken("expired-key", "old", "Bearer", "", now - 3600, 60);
    store.SetAuthToken("fresh-key", "fresh", "Bearer", "", now, 3600);
    restclient::authentication::AuthRenew missing("missing-key"), expired("expired-key"), fresh("fresh-key");

    // The first pass comes 10 seconds after the first renewer in the process.
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(25);
    auto renewed = [&] {
        return store.GetAuthToken("missing-key") && store.GetAuthToken("expired-key")->GetToken() != "old";
    };
    while (!renewed() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ASSERT_TRUE(renewed());
    EXPECT_EQ(store.GetAuthToken("fresh-key")->GetToken(), "fresh");
    EXPECT_EQ(cloud.tokenRequests(), 2u);
}

} // namespace
} // namespace tavix::test
