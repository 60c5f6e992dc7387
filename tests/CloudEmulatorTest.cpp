#include <tools/emulator/CloudEmulator.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>
#include <boost/filesystem/operations.hpp>

#include <gtest/gtest.h>
#include <json/reader.h>

#include <sstream>

namespace tavix::emulator {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
using http::verb;

struct Reply {
    unsigned status = 0;
    std::string body;
    Json::Value json;
};

// The path and query of an absolute URL the emulator handed out.
std::string targetOf(std::string const& url)
{
    auto slash = url.find('/', url.find("://") + 3);
    return slash == std::string::npos ? "/" : url.substr(slash);
}

std::optional<std::string> const bearer = std::string("Bearer ") + kDefaultToken;

Reply call(CloudEmulator& cloud, verb method, std::string const& target, std::string const& body = {},
           std::optional<std::string> const& authorization = bearer, std::string const& type = "application/json")
{
    asio::io_context io;
    beast::tcp_stream stream(io);
    stream.expires_after(std::chrono::seconds(10));
    stream.connect({asio::ip::make_address_v4("127.0.0.1"), cloud.port()});
    http::request<http::string_body> request(method, target, 11);
    request.set(http::field::host, "127.0.0.1");
    if (authorization)
        request.set(http::field::authorization, *authorization);
    request.set(http::field::content_type, type);
    request.body() = body;
    request.prepare_payload();
    http::write(stream, request);
    beast::flat_buffer buffer;
    http::response<http::string_body> response;
    http::read(stream, buffer, response);
    Reply reply{response.result_int(), response.body(), {}};
    std::istringstream in(reply.body);
    std::string errors;
    Json::parseFromStream(Json::CharReaderBuilder(), in, &reply.json, &errors);
    return reply;
}

Reply upload(CloudEmulator& cloud, std::string const& url, std::string const& body)
{
    return call(cloud, verb::put, targetOf(url), body, bearer, "binary/octet-stream");
}

std::string const storeBody = R"({"resource": {"metadata": {"item": [{"key": "_filename", "value": "a.bin"},
    {"key": "count", "value": 5}]}, "contentType": "binary/octet-stream", "name": "proj/a.bin", "type": "log"}})";

TEST(CloudEmulator, RoutesOnThePathWithSlashesCollapsedWhateverTheBase)
{
    CloudEmulator cloud;
    for (auto const& [target, status] : std::vector<std::pair<std::string, unsigned>>{
             {"//locator/rest/locations/ACCOUNT", 200}, {"/x//locations", 200}, {"//v1/locations/NOPE", 404},
             {"//account/v1/rest/accounts/current", 200}, {"//v1/accounts/accounts/current", 200},
             {"///geo", 200}, {"//nowhere", 404}})
        EXPECT_EQ(call(cloud, verb::get, target).status, status) << target;
    Reply location = call(cloud, verb::get, "//a//b/locations/ACCOUNT");
    EXPECT_EQ(location.json["tavixServerEndpoint"]["endPointURL"], cloud.accountUrl()) << location.body;
    Reply account = call(cloud, verb::get, "/x//accounts/current");
    EXPECT_EQ(account.json["account"]["links"]["link"][0]["@href"], cloud.storageUrl()) << account.body;
}

TEST(CloudEmulator, RefusesMissingOrUnknownAuthorizationWithTheServicesErrorShape)
{
    EmulatorConfig config;
    config.authorizations = {"Signed abc"};
    CloudEmulator cloud(config);
    for (auto const& authorization : {std::optional<std::string>(), std::optional<std::string>("Bearer wrong")}) {
        Reply refused = call(cloud, verb::get, "//a/accounts/current", {}, authorization);
        EXPECT_EQ(refused.status, 401u);
        EXPECT_EQ(refused.json["TavixErrorResponse"]["code"], 401);
        EXPECT_EQ(refused.json["TavixErrorResponse"]["subCode"], 1);
        Reply geo = call(cloud, verb::get, "/geo", {}, authorization);
        EXPECT_EQ(geo.status, 401u);
        EXPECT_TRUE(geo.json["message"].isString());
        EXPECT_FALSE(geo.json.isMember("TavixErrorResponse"));
    }
    EXPECT_EQ(call(cloud, verb::get, "/geo", {}, std::string("Signed abc")).status, 200u);
    std::string issued = cloud.issueToken();
    EXPECT_EQ(call(cloud, verb::get, "/geo", {}, "Bearer " + issued).status, 200u);
    cloud.revokeToken(issued);
    EXPECT_EQ(call(cloud, verb::get, "/geo", {}, "Bearer " + issued).status, 401u);
}

TEST(CloudEmulator, StoredAndUploadedObjectShowsInQueriesAndSurvivesARestart)
{
    boost::filesystem::path data = boost::filesystem::temp_directory_path() / boost::filesystem::unique_path();
    EmulatorConfig config;
    config.dataDirectory = data.string();
    std::string uploadUrl;
    {
        CloudEmulator cloud(config);
        Reply stored = call(cloud, verb::post, "//storage/v1/accounts/1001/files", storeBody);
        ASSERT_EQ(stored.status, 200u) << stored.body;
        uploadUrl = stored.json["url"].asString();
        EXPECT_EQ(upload(cloud, uploadUrl, "hello body").status, 200u);
        EXPECT_EQ(upload(cloud, uploadUrl + "0", "forged").status, 403u);

        Reply latest = call(cloud, verb::get, "//storage/v1/accounts/1001/project/proj/latest");
        ASSERT_EQ(latest.status, 200u) << latest.body;
        EXPECT_EQ(latest.json["contentLength"], 10);
        EXPECT_EQ(latest.json["href"], stored.json["href"]);
        EXPECT_TRUE(latest.json["metadata"]["item"][1]["value"].isInt()) << "metadata values keep their JSON type";
    }
    CloudEmulator restarted(config);
    Reply current = call(restarted, verb::get, "//storage/v1/accounts");
    ASSERT_EQ(current.json["resource"].size(), 1u) << current.body;
    EXPECT_EQ(current.json["resource"][0]["contentLength"], 10);
    EXPECT_EQ(current.json["resource"][0]["metadata"]["item"][0]["value"], "a.bin");
    EXPECT_EQ(upload(restarted, uploadUrl, "again").status, 200u) << "signed URLs outlive a restart";

    EXPECT_EQ(call(restarted, verb::delete_, targetOf(current.json["resource"][0]["href"].asString())).status, 200u);
    EXPECT_EQ(call(restarted, verb::get, "//s/accounts/1001/project/proj/latest").status, 404u);
    boost::filesystem::remove_all(data);
}

TEST(CloudEmulator, MalformedRequestsAndExpiredUploadsGetErrorDocuments)
{
    EmulatorConfig config;
    config.signedUrlLifetime = std::chrono::seconds(-1);
    CloudEmulator cloud(config);
    Reply expired = upload(cloud, call(cloud, verb::post, "/s/accounts/1001/files", storeBody).json["url"].asString(), "late");
    EXPECT_EQ(expired.status, 403u);
    EXPECT_EQ(expired.json["TavixErrorResponse"]["code"], 403);
    struct Case {
        verb method;
        std::string target, body;
        unsigned status;
    };
    for (Case const& c : std::vector<Case>{
             {verb::post, "//s/accounts/1001/files", "{\"resource\": ", 400},
             {verb::post, "//s/accounts/1001/files", R"({"resource": {}})", 400},
             {verb::put, "/h/registrations/current", R"({"ip": 1})", 400},
             {verb::patch, "//s/accounts/1001/files", "", 405},
             {verb::get, "//s/accounts/999/files", "", 404},
         }) {
        Reply const reply = call(cloud, c.method, c.target, c.body);
        EXPECT_EQ(reply.status, c.status) << c.target << " " << c.body;
        EXPECT_EQ(reply.json["TavixErrorResponse"]["code"].asUInt(), c.status) << c.target << " " << reply.body;
    }
}

TEST(CloudEmulator, ScriptedRepliesAndControlInterface)
{
    CloudEmulator cloud;
    cloud.scriptReply({401, R"({"code": 401})", "application/json", "/files"});
    EXPECT_EQ(call(cloud, verb::get, "/geo").status, 200u) << "a reply waits for its target";
    EXPECT_EQ(call(cloud, verb::get, "/s/accounts/1001/files").status, 401u);

    Reply queued = call(cloud, verb::post, "/_emulator/next-reply", R"({"status": 503, "body": {"message": "busy"}})", std::nullopt);
    EXPECT_EQ(queued.status, 200u) << queued.body;
    Reply scripted = call(cloud, verb::get, "/geo");
    EXPECT_EQ(scripted.status, 503u);
    EXPECT_EQ(scripted.json["message"], "busy");

    Reply seen = call(cloud, verb::get, "/_emulator/requests", {}, std::nullopt);
    ASSERT_EQ(seen.json["requests"].size(), 3u) << seen.body;
    EXPECT_EQ(seen.json["requests"][1]["target"], "/s/accounts/1001/files");
    EXPECT_EQ(call(cloud, verb::post, "/_emulator/fault", R"({"kind": "sideways"})", std::nullopt).status, 400u);
    EXPECT_EQ(call(cloud, verb::post, "/_emulator/reset", {}, std::nullopt).status, 200u);
    EXPECT_TRUE(cloud.serviceRequests().empty());
}

} // namespace
} // namespace tavix::emulator
