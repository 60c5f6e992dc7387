#include <tests/workers/UploaderFixture.h>

namespace tavix::test {
namespace {

std::string const kLocate = "locations/ACCOUNT";
std::string const kAccount = "accounts/current";
std::string const kStore = "/files";
std::string const kLocateFailed = "Unable to locate Account service";
std::string const kStorageUrlFailed = "Unable to get URL to Storage service";

std::string endpoint(std::string const& name, std::string const& type, std::string const& url)
{
    return R"({"tavixServerEndpoint": {"serviceName": ")" + name + R"(", "endPointURLType": ")" + type
        + R"(", "endPointURL": ")" + url + R"("}})";
}

TEST_F(UploaderTest, UnparsableLocatorUrlFailsBeforeAnyLookup)
{
    writeSettings("locator without a scheme");
    expectOutcome(*upload(), 13, "Unable to parse URL to Locator service.");
    EXPECT_EQ(requestsTo("locations"), 0u);
}

TEST_F(UploaderTest, LastSoapInTheLocatorUrlBecomesRest)
{
    writeSettings(cloud.baseUrl() + "/soap/locator/soap");
    expectOutcome(*upload(), 0, "");
    EXPECT_EQ(requestsTo("/soap/locator/rest/locations/ACCOUNT"), 1u);
}

struct ScriptedFailure {
    char const* name;
    std::string target;
    unsigned status;
    std::string body;
    int code;
    std::string message;
    bool malformed = false; // the message goes on to say that the answer was malformed
};
void PrintTo(ScriptedFailure const& value, std::ostream* out) { *out << value.name; }

class ChainFailure : public UploaderTest, public ::testing::WithParamInterface<ScriptedFailure> {};

TEST_P(ChainFailure, EndsAtStepSixWithTheStepsCode)
{
    ScriptedFailure const& failure = GetParam();
    cloud.scriptReply({failure.status, failure.body, "application/json", failure.target});
    auto uploader = upload();
    if (!failure.malformed) return expectOutcome(*uploader, failure.code, failure.message);
    EXPECT_EQ(uploader->step, 6);
    EXPECT_EQ(uploader->errorCode, failure.code);
    EXPECT_EQ(uploader->errorMessage.rfind(failure.message, 0), 0u) << uploader->errorMessage;
    EXPECT_NE(uploader->errorMessage.find("malformed"), std::string::npos) << uploader->errorMessage;
}

INSTANTIATE_TEST_SUITE_P(
    Uploader, ChainFailure,
    ::testing::Values(
        ScriptedFailure{"AccountUrlUnparsable", kLocate, 200, endpoint("ACCOUNT", "REST", "nowhere"), 23,
                        "Unable to parse URL to Account service."},
        ScriptedFailure{"OtherService", kLocate, 200, endpoint("STORAGE", "REST", "http://x:1"), 12, kLocateFailed},
        ScriptedFailure{"LocatorEndpointArray", kLocate, 200, R"({"tavixServerEndpoint": [1]})", 12, kLocateFailed},
        ScriptedFailure{"StorageUrlUnparsable", kAccount, 200,
                        R"({"account": {"links": {"link": [{"@name": "storage", "@href": "nowhere"}]}}})", 33,
                        "Unable to parse URL to Storage service."},
        ScriptedFailure{"AccountError", kAccount, 500, errorDocument(500), 22, kStorageUrlFailed},
        ScriptedFailure{"AccountAnswerArray", kAccount, 200, "[1, 2]", 22, kStorageUrlFailed, true},
        ScriptedFailure{"AccountMemberArray", kAccount, 200, R"({"account": [1]})", 22, kStorageUrlFailed, true},
        ScriptedFailure{"StoreError", kStore, 500, errorDocument(500), 32, "Failed to get upload URL."}),
    [](auto const& info) { return std::string(info.param.name); });

class UnauthorizedOnce : public UploaderTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(UnauthorizedOnce, ReauthenticatesOnceAndSucceeds)
{
    cloud.scriptReply({401, errorDocument(401), "application/json", GetParam()});
    expectOutcome(*upload(), 0, "");
    EXPECT_EQ(cloud.tokenRequests(), 2u);
    EXPECT_EQ(requestsTo(GetParam()), 2u);
    EXPECT_EQ(cloud.objects().size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Uploader, UnauthorizedOnce, ::testing::Values(kLocate, kAccount, kStore));

struct SecondUnauthorized {
    char const* name;
    std::string first, second;
    int code;
    std::string message;
};
void PrintTo(SecondUnauthorized const& value, std::ostream* out) { *out << value.name; }

class UnauthorizedTwice : public UploaderTest, public ::testing::WithParamInterface<SecondUnauthorized> {};

TEST_P(UnauthorizedTwice, SecondOneFailsTheStep)
{
    for (std::string const& target : {GetParam().first, GetParam().second})
        cloud.scriptReply({401, errorDocument(401), "application/json", target});
    expectOutcome(*upload(), GetParam().code, GetParam().message);
    EXPECT_EQ(cloud.tokenRequests(), 2u);
}

INSTANTIATE_TEST_SUITE_P(
    Uploader, UnauthorizedTwice,
    ::testing::Values(SecondUnauthorized{"LocateAccount", kLocate, kAccount, 22, kStorageUrlFailed},
                      SecondUnauthorized{"AccountStore", kAccount, kStore, 32, "Failed to get upload URL."}),
    [](auto const& info) { return std::string(info.param.name); });

TEST_F(UploaderTest, RefusedAuthenticationGivesTheStatusAndDescription)
{
    cloud.scriptReply({401, R"({"error": "invalid_client", "error_description": "Unknown client"})", "application/json",
                       "/oauth/token"});
    expectOutcome(*upload(), 401, "Unknown client");
    EXPECT_EQ(requestsTo("locations"), 0u);
}

TEST_F(UploaderTest, ProxyEndpointFailsWithoutBackOff)
{
    for (int i = 0; i < 2; ++i) {
        cloud.scriptReply({200, endpoint("ACCOUNT", "PROXY", cloud.accountUrl()), "application/json", kLocate});
        expectOutcome(*upload(), 12, kLocateFailed);
    }
    EXPECT_EQ(requestsTo(kLocate), 2u);
}

TEST_F(UploaderTest, FailedLookupBacksOffForTheNextUploader)
{
    cloud.scriptReply({500, errorDocument(500), "application/json", kLocate});
    expectOutcome(*upload(), 12, kLocateFailed);
    // Within 300 seconds the lookup is skipped, and no Account URL was ever cached.
    expectOutcome(*upload(), 23, "Unable to parse URL to Account service.");
    EXPECT_EQ(requestsTo(kLocate), 1u);
}

} // namespace
} // namespace tavix::test
