#include <tavix/controller/AuthenticationServiceClient.h>
#include <tavix/controller/CommonName.h>
#include <tavix/controller/LocatorServiceClient.h>
#include <tavix/controller/OAuthHelper.h>
#include <tavix/controller/Settings.h>
#include <tavix/controller/SoapHelper.h>

#include <tests/support/ScopedControllerConfig.h>
#include <tools/emulator/CloudEmulator.h>

#include <boost/asio/error.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <gtest/gtest.h>

#include <cerrno>
#include <ctime>

namespace tavix::controller {
namespace {

using test::ScopedControllerConfig;

// Against the emulator's token endpoint, with the answers a test scripts.
class AuthenticationTest : public ::testing::Test {
protected:
    AuthenticationTest() { OAuthHelper::Instance().RemoveAuthToken(key); }

    int authenticate(std::string const& appKey = "device-key")
    {
        message = "unset";
        return AuthenticationServiceClient::AuthenticateController(appKey, message);
    }

    std::string const key = "device-key";
    emulator::CloudEmulator cloud;
    ScopedControllerConfig config{"auth_url = " + cloud.tokenUrl() + "\n"};
    std::string message;
};

TEST_F(AuthenticationTest, PostsTheClientCredentialsFormAndStoresTheToken)
{
    std::string const oddKey = "key /&=+\xc3\xa9";
    OAuthHelper::Instance().SetAuthToken(oddKey, "old", "Bearer", "", 1, 1);
    AuthTokenPtr const held = OAuthHelper::Instance().GetAuthToken(oddKey);
    std::time_t const before = std::time(nullptr);
    cloud.replyNext(200, R"({"access_token":"tok-1","token_type":"Bearer","expires_in":3600,"scope":"upload"})");
    ASSERT_EQ(authenticate(oddKey), 0) << message;
    EXPECT_EQ(message, "");

    auto const seen = cloud.serviceRequests().back();
    EXPECT_EQ(seen.requestLine, "POST /oauth/token HTTP/1.1");
    EXPECT_EQ(seen.header("Content-Type"), "application/x-www-form-urlencoded");
    EXPECT_EQ(seen.header("Accept"), "application/json");
    EXPECT_EQ(seen.body, "grant_type=client_credentials&client_id=key%20%2F%26%3D%2B%C3%A9");

    // Overwritten in place: a handle taken before sees the new token.
    EXPECT_EQ(OAuthHelper::Instance().GetAuthToken(oddKey), held);
    EXPECT_EQ(held->GetToken(), "tok-1");
    EXPECT_EQ(held->GetTokenType(), "Bearer");
    EXPECT_EQ(held->GetScope(), "upload");
    EXPECT_EQ(held->GetDuration(), 3600);
    EXPECT_GE(held->GetIssued(), before);
    EXPECT_LE(held->GetIssued(), std::time(nullptr));
}

TEST_F(AuthenticationTest, ARefusalOrAMalformedTokenAnswerIsTheStatusAndATextWithoutTheToken)
{
    std::string const deep = std::string(2000, '[') + std::string(2000, ']');
    struct Case {
        unsigned status;
        std::string body, message;
    };
    for (Case const& c : std::vector<Case>{
             {401, R"({"error":"invalid_client","error_description":"Unknown client"})", "Unknown client"},
             {400, R"({"error":"invalid_request","error_description":""})", "invalid_request"},
             {503, "<html>busy</html>", "503 Service Unavailable"},
             {401, deep, "401 Unauthorized"},
             {555, "", "555"},
             {200, deep, "malformed token answer: the body is not a JSON object"},
             {200, R"(["secret"])", "malformed token answer: the body is not a JSON object"},
             {200, R"({"access_token":"","token_type":"Bearer","expires_in":60})",
              "malformed token answer: no access_token"},
             {200, R"({"access_token":"secret","token_type":"mac","expires_in":60})",
              "malformed token answer: token_type is not Bearer"},
             {200, R"({"access_token":"secret","token_type":"bearer","expires_in":"60"})",
              "malformed token answer: expires_in is not a non-negative whole number"},
             {200, R"({"access_token":"secret","token_type":"Bearer","expires_in":-1})",
              "malformed token answer: expires_in is not a non-negative whole number"},
         }) {
        cloud.replyNext(c.status, c.body);
        EXPECT_EQ(authenticate(), int(c.status)) << c.body;
        EXPECT_EQ(message, c.message);
        EXPECT_FALSE(OAuthHelper::Instance().GetAuthToken(key)) << c.body;
    }
}

TEST_F(AuthenticationTest, TransportAndSettingsFailuresAreTheirOwnCodeAndText)
{
    boost::asio::io_context io;
    boost::asio::ip::tcp::socket boundOnly(io, boost::asio::ip::tcp::v4());
    boundOnly.bind({boost::asio::ip::make_address("127.0.0.1"), 0});
    config.write("auth_url = http://127.0.0.1:" + std::to_string(boundOnly.local_endpoint().port()) + "/token\n");
    EXPECT_EQ(authenticate(), ECONNREFUSED);
    EXPECT_EQ(message, make_error_code(boost::asio::error::connection_refused).message());

    struct Case {
        std::string settings;
        int code;
        std::string inMessage;
    };
    for (Case const& c : std::vector<Case>{
             {"locator_url = http://127.0.0.1/\n", EDESTADDRREQ, "No auth_url"},
             {"auth_url\n", int(SettingsError::malformedLine), config.path() + ":1: "},
             {"auth_url = http://bad host/token\n", 0, "Invalid auth_url 'http://bad host/token': "},
         }) {
        config.write(c.settings);
        int const code = authenticate();
        EXPECT_EQ(code, c.code ? c.code : code) << c.settings;
        EXPECT_NE(code, 0) << c.settings;
        EXPECT_NE(message.find(c.inMessage), std::string::npos) << message;
    }
    EXPECT_FALSE(OAuthHelper::Instance().GetAuthToken(key));
}

TEST(ServiceSettingsTest, ReadTheSettingsAfreshAtEachCall)
{
    ScopedControllerConfig config("locator_url = https://locator/soap/v1\nclient_cert_file = /c.pem\n"
                                  "disable_tls = true\ncommon_name = device 7\n");
    EXPECT_EQ(LocatorServiceClient::LocatorServiceUrl(), "https://locator/soap/v1");
    EXPECT_EQ(SoapHelper::GetClientCertFile(), "/c.pem");
    EXPECT_TRUE(SoapHelper::GetDisableTLS());
    EXPECT_EQ(CommonName::GetCommonName(), "device 7");

    config.write("common_name = device 8\n");
    EXPECT_EQ(CommonName::GetCommonName(), "device 8");
    EXPECT_FALSE(SoapHelper::GetDisableTLS());

    config.write("common_name = device 9\nnot a setting\n");
    EXPECT_EQ(CommonName::GetCommonName(), "") << "unreadable reads as nothing set";
    EXPECT_EQ(LocatorServiceClient::LocatorServiceUrl(), "");
}

} // namespace
} // namespace tavix::controller
