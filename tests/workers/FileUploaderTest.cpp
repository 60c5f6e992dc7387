#include <tests/workers/UploaderFixture.h>

#include <tavix/controller/OAuthHelper.h>
#include <tavix/version/BuildVersion.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <random>
#include <regex>

#include <unistd.h>

namespace tavix::test {
namespace {

struct EndToEnd {
    char const* name;
    bool tls;
    std::size_t size;
};
void PrintTo(EndToEnd const& value, std::ostream* out) { *out << value.name; }

class UploadEndToEnd : public UploaderTest, public ::testing::WithParamInterface<EndToEnd> {
protected:
    UploadEndToEnd() : UploaderTest(GetParam().tls ? httpsConfig() : emulator::EmulatorConfig()) {}
};

TEST_P(UploadEndToEnd, StoresTheFileWithItsMetadata)
{
    std::string content(GetParam().size, '\0');
    std::generate(content.begin(), content.end(), std::mt19937(7));
    std::atomic<int> finishedCalls{0};
    auto uploader = start(makeFile("data.bin", content), {{"zeta", "z"}, {"alpha", "a"}, {"_filename", "forged"}},
                          [&](FileUploader const& done) { finishedCalls += done.step == 6; });
    if (GetParam().tls) uploader->SetCACertFile(certs::ca());
    ASSERT_TRUE(uploader->WaitFinished(kBound)) << "still at step " << uploader->step;
    expectOutcome(*uploader, 0, "");
    EXPECT_EQ(uploader->mediaLocation, cloud.storageUrl() + "/media");
    EXPECT_EQ(uploader->bytesSent, static_cast<std::int64_t>(content.size()));
    EXPECT_EQ(uploader->bytesTotal, static_cast<std::int64_t>(content.size()));
    uploader.reset();
    EXPECT_EQ(finishedCalls, 1);

    auto const objects = cloud.objects();
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(objects[0].name, "proj/data.bin");
    EXPECT_EQ(objects[0].type, "log");
    EXPECT_EQ(objects[0].contentType, "binary/octet-stream");
    std::ifstream body((cloud.dataDirectory() / "objects" / (objects[0].id + ".body")).string(), std::ios::binary);
    EXPECT_TRUE(std::string(std::istreambuf_iterator<char>(body), {}) == content) << "stored bytes differ";

    std::vector<std::string> keys;
    std::map<std::string, std::string> values;
    for (Json::Value const& item : objects[0].metadataItems)
        values[keys.emplace_back(item["key"].asString())] = item["value"].asString();
    EXPECT_EQ(keys,
              (std::vector<std::string>{"buildnumber", "_hostname", "_mac", "_commonname", "datecreated", "_filename",
                                        "_md5checksum", "alpha", "zeta"}));
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    EXPECT_EQ(values["buildnumber"], version::get_build_version());
    EXPECT_EQ(values["_hostname"], host);
    EXPECT_EQ(values["_commonname"], "controller-7");
    EXPECT_EQ(values["_filename"], "data.bin");
    EXPECT_TRUE(std::regex_match(values["datecreated"], std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d\d:\d\d)")))
        << values["datecreated"];
    if (GetParam().size == 0) {
        EXPECT_EQ(values["_md5checksum"], "d41d8cd98f00b204e9800998ecf8427e");
    }
    for (auto const& request : cloud.serviceRequests())
        EXPECT_EQ(request.clientCommonName.empty(), !GetParam().tls) << request.requestLine;
}

INSTANTIATE_TEST_SUITE_P(Uploader, UploadEndToEnd,
                         ::testing::Values(EndToEnd{"HttpSmall", false, 4096}, EndToEnd{"HttpEmpty", false, 0},
                                           EndToEnd{"HttpSeveralMB", false, 3 * 1024 * 1024 + 17},
                                           EndToEnd{"HttpsSmall", true, 4096}, EndToEnd{"HttpsEmpty", true, 0},
                                           EndToEnd{"HttpsSeveralMB", true, 3 * 1024 * 1024 + 17}),
                         [](auto const& info) { return std::string(info.param.name); });

TEST_F(UploaderTest, MissingFileFailsAtOnceWithoutAThread)
{
    auto threads = [] { return std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator()); };
    auto const before = threads();
    int finishedCalls = 0;
    auto uploader = start(dir / "absent.bin", {}, [&](FileUploader const&) { ++finishedCalls; });
    EXPECT_EQ(threads(), before);
    EXPECT_TRUE(uploader->WaitFinished(std::chrono::milliseconds(0)));
    expectOutcome(*uploader, 2, "File doesn't exist.");
    EXPECT_EQ(finishedCalls, 1);
    EXPECT_TRUE(cloud.serviceRequests().empty());
}

TEST_F(UploaderTest, UploadersStartedTogetherAuthenticateOnce)
{
    auto first = start(makeFile("one.txt", "1"));
    auto second = start(makeFile("two.txt", "2"));
    ASSERT_TRUE(first->WaitFinished(kBound) && second->WaitFinished(kBound));
    expectOutcome(*first, 0, "");
    expectOutcome(*second, 0, "");
    EXPECT_EQ(cloud.tokenRequests(), 1u);
    EXPECT_EQ(cloud.objects().size(), 2u);
}

TEST_F(UploaderTest, ValidTokenInTheStoreIsUsedWithoutAuthenticating)
{
    std::string const token = cloud.issueToken();
    controller::OAuthHelper::Instance().SetAuthToken(kAppKey, token, "Bearer", "", std::time(nullptr), 3600);
    expectOutcome(*upload(), 0, "");
    EXPECT_EQ(cloud.tokenRequests(), 0u);
    for (auto const& request : cloud.serviceRequests()) {
        if (request.target.find("/blobs/") != std::string::npos) continue;
        EXPECT_EQ(request.header("Authorization"), "Bearer " + token) << request.requestLine;
    }
}

// The Account URL is trusted as long as the token it was found with: once that token has
// expired, a token someone else put in the store meanwhile does not keep the old URL alive.
TEST_F(UploaderTest, CachedAccountUrlExpiresWithItsToken)
{
    auto& store = controller::OAuthHelper::Instance();
    std::time_t const issued = std::time(nullptr) - 10;
    std::string const shortLived = "short-lived-token";
    cloud.acceptToken(shortLived);
    store.SetAuthToken(kAppKey, shortLived, "Bearer", "", issued, 11);
    expectOutcome(*upload(), 0, "");
    EXPECT_EQ(requestsTo("/locations/ACCOUNT"), 1u);

    while (std::time(nullptr) <= issued + 11) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    store.SetAuthToken(kAppKey, cloud.issueToken(), "Bearer", "", std::time(nullptr), 3600);
    expectOutcome(*upload(), 0, "");
    EXPECT_EQ(requestsTo("/locations/ACCOUNT"), 2u);
    expectOutcome(*upload(), 0, "");
    EXPECT_EQ(requestsTo("/locations/ACCOUNT"), 2u) << "cached while the new token lives";
    EXPECT_EQ(cloud.tokenRequests(), 0u);
}

TEST_F(UploaderTest, DebugLogShowsTheTimeoutRuleAndTheReauthentication)
{
    fs::path const log = dir / "uploader.log";
    ::setenv("TAVIX_LOG_CONFIG",
             makeFile("log.properties",
                      "log4cplus.rootLogger=DEBUG, F\nlog4cplus.appender.F=log4cplus::FileAppender\n"
                      "log4cplus.appender.F.File="
                          + log.string()
                          + "\n"
                            "log4cplus.appender.F.layout=log4cplus::PatternLayout\n"
                            "log4cplus.appender.F.layout.ConversionPattern=%m%n\n")
                 .c_str(),
             1);
    // A 401 on the upload-URL request: a second token is acquired.
    cloud.scriptReply({401, errorDocument(401), "application/json", "/files"});
    auto uploader = start(makeFile("million.bin", std::string(1000000, 'x')));
    ASSERT_TRUE(uploader->WaitFinished(kBound));
    expectOutcome(*uploader, 0, "");

    std::vector<std::string> lines;
    std::ifstream in(log.string());
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    auto logged = [&](std::string const& text) { return std::count(lines.begin(), lines.end(), text); };
    EXPECT_EQ(logged("[FileUploader] Upload timeout is 10 + 200 * 2 = 410 seconds."), 1);
    EXPECT_EQ(logged("[FileUploader] Received error code 401 while trying to get URL to upload file. Trying to "
                     "re-authenticate."),
              1);
    for (std::string const& line : lines) EXPECT_EQ(line.rfind("[FileUploader] ", 0), 0u) << line;
}

TEST(ISO8601Time, LocalTimeWithTheZoneOffsetColonSeparated)
{
    long const t = 1700000000; // 2023-11-14T22:13:20Z
    for (auto const& [tz, expected] :
         std::vector<std::pair<char const*, char const*>>{{"UTC0", "2023-11-14T22:13:20+00:00"},
                                                          {"CET-1", "2023-11-14T23:13:20+01:00"},
                                                          {"<-0530>+5:30", "2023-11-14T16:43:20-05:30"},
                                                          {"<+0545>-5:45", "2023-11-15T03:58:20+05:45"}}) {
        ::setenv("TZ", tz, 1);
        ::tzset();
        EXPECT_EQ(restclient::storage::ISO8601Time(t), expected) << tz;
    }
}

} // namespace
} // namespace tavix::test
