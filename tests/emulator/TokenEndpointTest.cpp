#include <tests/emulator/EmulatorCalls.h>
#include <tools/emulator/CloudEmulator.h>

#include <gtest/gtest.h>

namespace tavix::emulator {
namespace {

using namespace calls;
using boost::beast::http::verb;

Headers const form = {{"Content-Type", "application/x-www-form-urlencoded"}};

Reply askToken(CloudEmulator& cloud, std::string const& body, Headers const& headers = form)
{
    return exchange(verb::post, cloud.tokenUrl(), body, headers);
}

std::string tokenFrom(CloudEmulator& cloud)
{
    Reply reply = askToken(cloud, "grant_type=client_credentials&client_id=app");
    EXPECT_EQ(reply.status, 200u) << reply.body;
    return reply.json["access_token"].asString();
}

TEST(TokenEndpoint, HandsOutBearerTokensTheServicesAccept)
{
    CloudEmulator cloud;
    Reply const granted = askToken(cloud, "grant_type=client_credentials&client_id=device%2F7+key");
    ASSERT_EQ(granted.status, 200u) << granted.body;
    EXPECT_EQ(granted.json["token_type"], "Bearer");
    EXPECT_EQ(granted.json["expires_in"], 3600);
    EXPECT_EQ(granted.fields["Cache-Control"], "no-store");
    std::string const token = granted.json["access_token"].asString();
    ASSERT_FALSE(token.empty());
    EXPECT_EQ(exchange(verb::get, cloud.geoUrl(), {}, bearer(token)).status, 200u);
    EXPECT_NE(tokenFrom(cloud), token);
    EXPECT_EQ(cloud.tokenRequests(), 2u);
}

TEST(TokenEndpoint, RefusesBadRequestsWithOAuthErrorDocuments)
{
    EmulatorConfig config;
    config.clientIds = {"known"};
    CloudEmulator cloud(config);
    struct Case {
        std::string body;
        Headers headers;
        unsigned status;
        std::string error;
    };
    std::vector<Case> const cases = {
        {"grant_type=client_credentials&client_id=known",
         {{"Content-Type", "application/json"}},
         400,
         "invalid_request"},
        {"client_id=known", form, 400, "invalid_request"},
        {"grant_type=client_credentials&client_id=known&client_id=known", form, 400, "invalid_request"},
        {"grant_type=password&client_id=known", form, 400, "unsupported_grant_type"},
        {"grant_type=client_credentials&client_id=", form, 401, "invalid_client"},
        {"grant_type=client_credentials", form, 401, "invalid_client"},
        {"grant_type=client_credentials&client_id=stranger", form, 401, "invalid_client"},
    };
    for (Case const& c : cases) {
        Reply const refused = askToken(cloud, c.body, c.headers);
        EXPECT_EQ(refused.status, c.status) << c.body;
        EXPECT_EQ(refused.json["error"], c.error) << c.body << " " << refused.body;
        EXPECT_FALSE(refused.json["error_description"].asString().empty()) << refused.body;
        EXPECT_FALSE(refused.json.isMember("access_token"));
    }
    EXPECT_EQ(exchange(verb::get, cloud.tokenUrl()).status, 405u);
    EXPECT_EQ(askToken(cloud, "grant_type=client_credentials&client_id=known").status, 200u);
    EXPECT_EQ(cloud.tokenRequests(), cases.size() + 2);
}

TEST(TokenEndpoint, ExpiredTokensAreRefusedOnEveryServiceRouteWhenEnforced)
{
    for (bool const enforce : {true, false}) {
        for (ErrorStyle const style : {ErrorStyle::wrapped, ErrorStyle::bare}) {
            EmulatorConfig config;
            config.tokenLifetime = std::chrono::seconds(0);
            config.enforceTokenExpiry = enforce;
            config.errorStyle = style;
            CloudEmulator cloud(config);
            std::string const expired = tokenFrom(cloud);
            unsigned const expected = enforce ? 401 : 200;
            for (std::string const& token : {expired, cloud.issueToken()}) {
                Reply const account =
                    exchange(verb::get, cloud.accountUrl() + "/v1/rest/accounts/current", {}, bearer(token));
                EXPECT_EQ(account.status, expected) << enforce;
                Reply const storage = exchange(verb::get, cloud.storageUrl() + "/files", {}, bearer(token));
                EXPECT_EQ(storage.status, expected);
                Reply const geo = exchange(verb::get, cloud.geoUrl(), {}, bearer(token));
                EXPECT_EQ(geo.status, expected);
                if (!enforce) continue;
                Json::Value const& error =
                    style == ErrorStyle::wrapped ? account.json["TavixErrorResponse"] : account.json;
                EXPECT_EQ(error["code"], 401) << account.body;
                EXPECT_EQ(error["subCode"], 1) << account.body;
                EXPECT_TRUE(geo.json["message"].isString()) << geo.body;
            }
            EXPECT_EQ(exchange(verb::get, cloud.geoUrl(), {}, bearer(kDefaultToken)).status, 200u)
                << "configured tokens never expire";
        }
    }
}

TEST(TokenEndpoint, ConfigDocumentSetsTheTokenAndTlsOptions)
{
    EmulatorConfig config;
    std::string error;
    Json::Value document;
    std::istringstream(R"({"tokenLifetime": 60, "enforceTokenExpiry": false, "clientIds": ["a", "b"],
        "certificate": "c.pem", "privateKey": "k.pem", "clientCa": "ca.pem", "requireClientCertificate": true})")
        >> document;
    ASSERT_TRUE(applyConfigDocument(document, config, error)) << error;
    EXPECT_EQ(config.tokenLifetime, std::chrono::seconds(60));
    EXPECT_FALSE(config.enforceTokenExpiry);
    EXPECT_EQ(config.clientIds, (std::vector<std::string>{"a", "b"}));
    ASSERT_TRUE(config.tls);
    EXPECT_TRUE(config.tls->requireClientCertificate);
    for (char const* bad : {R"({"tokenLifetime": -1})", R"({"enforceTokenExpiry": "yes"})", R"({"clientIds": "a"})"}) {
        std::istringstream(bad) >> document;
        EXPECT_FALSE(applyConfigDocument(document, config, error)) << bad;
    }
}

} // namespace
} // namespace tavix::emulator
