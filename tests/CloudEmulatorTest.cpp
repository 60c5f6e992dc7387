#include <tools/emulator/CloudEmulator.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>
#include <boost/filesystem/operations.hpp>

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>

#include <sstream>

namespace tavix::emulator {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;

struct Reply {
    unsigned status = 0;
    std::string body;
    Json::Value json;
};

Json::Value parsed(std::string const& text)
{
    Json::Value root;
    std::istringstream in(text);
    std::string errors;
    Json::parseFromStream(Json::CharReaderBuilder(), in, &root, &errors);
    return root;
}

// The path and query of an absolute URL the emulator handed out.
std::string targetOf(std::string const& url)
{
    auto slash = url.find('/', url.find("://") + 3);
    return slash == std::string::npos ? "/" : url.substr(slash);
}

class Connection {
public:
    explicit Connection(unsigned short port) : m_stream(m_io)
    {
        m_stream.expires_after(std::chrono::seconds(10));
        m_stream.connect(asio::ip::tcp::endpoint(asio::ip::make_address_v4("127.0.0.1"), port));
    }

    Reply exchange(http::request<http::string_body>& request)
    {
        request.set(http::field::host, "127.0.0.1");
        request.prepare_payload();
        m_stream.expires_after(std::chrono::seconds(10));
        http::write(m_stream, request);
        return read();
    }

private:
    Reply read()
    {
        http::response<http::string_body> response;
        http::read(m_stream, m_buffer, response);
        return {response.result_int(), response.body(), parsed(response.body())};
    }

    asio::io_context m_io;
    beast::tcp_stream m_stream;
    beast::flat_buffer m_buffer;
};

Reply call(CloudEmulator& cloud, http::verb method, std::string const& target, std::string const& body = {},
           std::optional<std::string> const& authorization = std::string("Bearer ") + kDefaultToken)
{
    http::request<http::string_body> request(method, target, 11);
    if (authorization)
        request.set(http::field::authorization, *authorization);
    request.set(http::field::content_type, "application/json");
    request.body() = body;
    return Connection(cloud.port()).exchange(request);
}

Reply upload(CloudEmulator& cloud, std::string const& url, std::string const& body)
{
    http::request<http::string_body> request(http::verb::put, targetOf(url), 11);
    request.set(http::field::content_type, "binary/octet-stream");
    request.body() = body;
    return Connection(cloud.port()).exchange(request);
}

std::string const storeBody = R"({"resource": {"metadata": {"item": [{"key": "_filename", "value": "a.bin"},
    {"key": "count", "value": 5}]}, "contentType": "binary/octet-stream", "name": "proj/a.bin", "type": "log"}})";

TEST(CloudEmulator, RoutesOnThePathWithSlashesCollapsedWhateverTheBase)
{
    CloudEmulator cloud;
    Reply location = call(cloud, http::verb::get, "//locator/rest/locations/ACCOUNT");
    ASSERT_EQ(location.status, 200u) << location.body;
    EXPECT_EQ(location.json["tavixServerEndpoint"]["endPointURL"], cloud.accountUrl());
    EXPECT_EQ(location.json["tavixServerEndpoint"]["serviceName"], "ACCOUNT");
    EXPECT_TRUE(call(cloud, http::verb::get, "/x//locations").json["tavixServerEndpoint"].isArray());
    EXPECT_EQ(call(cloud, http::verb::get, "//v1/locations/NOPE").json["TavixErrorResponse"]["code"], 404);

    Reply account = call(cloud, http::verb::get, "//account/v1/rest/accounts/current");
    ASSERT_EQ(account.status, 200u) << account.body;
    Json::Value const& links = account.json["account"]["links"]["link"];
    ASSERT_TRUE(links.isArray());
    EXPECT_EQ(links[0]["@name"], "storage");
    EXPECT_EQ(links[0]["@href"], cloud.storageUrl());
    EXPECT_EQ(links[1]["@href"], cloud.usersUrl());
    EXPECT_EQ(call(cloud, http::verb::get, "//v1/accounts/accounts/current").status, 200u);

    Reply users = call(cloud, http::verb::get, targetOf(cloud.usersUrl()));
    EXPECT_EQ(users.json["users"]["@totalCount"], "1");
    Reply user = call(cloud, http::verb::get, targetOf(users.json["users"]["user"]["@href"].asString()));
    EXPECT_EQ(user.json["user"]["isOwner"], true);

    EXPECT_EQ(call(cloud, http::verb::get, "///geo").json["countryIso"], "NO");
    EXPECT_EQ(call(cloud, http::verb::get, "//nowhere").status, 404u);
}

TEST(CloudEmulator, RefusesMissingOrUnknownAuthorizationWithTheServicesErrorShape)
{
    EmulatorConfig config;
    config.authorizations = {"Signed abc"};
    CloudEmulator cloud(config);
    for (auto const& authorization : {std::optional<std::string>(), std::optional<std::string>("Bearer wrong")}) {
        Reply refused = call(cloud, http::verb::get, "//a/accounts/current", {}, authorization);
        EXPECT_EQ(refused.status, 401u);
        EXPECT_EQ(refused.json["TavixErrorResponse"]["code"], 401);
        EXPECT_EQ(refused.json["TavixErrorResponse"]["subCode"], 1);
        Reply geo = call(cloud, http::verb::get, "/geo", {}, authorization);
        EXPECT_EQ(geo.status, 401u);
        EXPECT_TRUE(geo.json["message"].isString());
        EXPECT_FALSE(geo.json.isMember("TavixErrorResponse"));
    }
    EXPECT_EQ(call(cloud, http::verb::get, "/geo", {}, std::string("Signed abc")).status, 200u);
    std::string issued = cloud.issueToken();
    EXPECT_EQ(call(cloud, http::verb::get, "/geo", {}, "Bearer " + issued).status, 200u);
    cloud.revokeToken(issued);
    EXPECT_EQ(call(cloud, http::verb::get, "/geo", {}, "Bearer " + issued).status, 401u);
}

TEST(CloudEmulator, StoredAndUploadedObjectShowsInQueriesAndSurvivesARestart)
{
    boost::filesystem::path data = boost::filesystem::temp_directory_path() / boost::filesystem::unique_path();
    EmulatorConfig config;
    config.dataDirectory = data.string();
    std::string uploadUrl;
    {
        CloudEmulator cloud(config);
        Reply stored = call(cloud, http::verb::post, "//storage/v1/accounts/1001/files", storeBody);
        ASSERT_EQ(stored.status, 200u) << stored.body;
        uploadUrl = stored.json["url"].asString();
        EXPECT_EQ(upload(cloud, uploadUrl, "hello body").status, 200u);
        EXPECT_EQ(upload(cloud, uploadUrl + "0", "forged").status, 403u);

        Reply latest = call(cloud, http::verb::get, "//storage/v1/accounts/1001/project/proj/latest");
        ASSERT_EQ(latest.status, 200u) << latest.body;
        EXPECT_EQ(latest.json["name"], "proj/a.bin");
        EXPECT_EQ(latest.json["contentLength"], 10);
        EXPECT_EQ(latest.json["href"], stored.json["href"]);
        EXPECT_TRUE(latest.json["metadata"]["item"][1]["value"].isInt()) << "metadata values keep their JSON type";

        EXPECT_EQ(call(cloud, http::verb::get, "//x/accounts/1001/project/proj/a.bin").json["name"], "proj/a.bin");
        EXPECT_EQ(call(cloud, http::verb::get, "//x/accounts/1001/files?_s=type==log").json["resource"].size(), 1u);
        EXPECT_EQ(call(cloud, http::verb::get, "//x/accounts/1001?_s=type==log,prefix==pr").json["resource"].size(), 1u);
        EXPECT_EQ(call(cloud, http::verb::get, "//x/accounts/1001?_s=prefix==other").json["resource"].size(), 0u);
        EXPECT_EQ(call(cloud, http::verb::get, "//x/accounts/1001/files/log/proj").json["resource"].size(), 1u);

        Reply download = call(cloud, http::verb::get, targetOf(latest.json["url"]["href"].asString()));
        ASSERT_EQ(download.status, 200u) << download.body;
        EXPECT_EQ(call(cloud, http::verb::get, targetOf(download.json["url"].asString()), {}, std::nullopt).body,
                  "hello body");
    }
    CloudEmulator restarted(config);
    Reply current = call(restarted, http::verb::get, "//storage/v1/accounts");
    ASSERT_EQ(current.json["resource"].size(), 1u) << current.body;
    EXPECT_EQ(current.json["resource"][0]["contentLength"], 10);
    EXPECT_EQ(current.json["resource"][0]["metadata"]["item"][0]["value"], "a.bin");
    EXPECT_EQ(upload(restarted, uploadUrl, "again").status, 200u) << "signed URLs outlive a restart";

    std::string link = current.json["resource"][0]["href"].asString();
    EXPECT_EQ(call(restarted, http::verb::delete_, targetOf(link)).status, 200u);
    EXPECT_EQ(call(restarted, http::verb::get, "//s/accounts/1001/project/proj/latest").status, 404u);
    boost::filesystem::remove_all(data);
}

TEST(CloudEmulator, ExpiredUploadUrlIsRefused)
{
    EmulatorConfig config;
    config.signedUrlLifetime = std::chrono::seconds(-1);
    CloudEmulator cloud(config);
    Reply stored = call(cloud, http::verb::post, "/s/accounts/1001/files", storeBody);
    Reply refused = upload(cloud, stored.json["url"].asString(), "late");
    EXPECT_EQ(refused.status, 403u);
    EXPECT_EQ(refused.json["TavixErrorResponse"]["code"], 403);
}

TEST(CloudEmulator, MalformedRequestsGetErrorDocuments)
{
    CloudEmulator cloud;
    Reply bad = call(cloud, http::verb::post, "//s/accounts/1001/files", "{\"resource\": ");
    EXPECT_EQ(bad.status, 400u);
    EXPECT_EQ(bad.json["TavixErrorResponse"]["code"], 400);
    EXPECT_EQ(call(cloud, http::verb::post, "//s/accounts/1001/files", R"({"resource": {}})").status, 400u);
    EXPECT_EQ(call(cloud, http::verb::put, "/h/registrations/current", R"({"ip": 1})").status, 400u);
    Reply wrongMethod = call(cloud, http::verb::patch, "//s/accounts/1001/files");
    EXPECT_EQ(wrongMethod.status, 405u);
    EXPECT_EQ(wrongMethod.json["TavixErrorResponse"]["code"], 405);
    EXPECT_EQ(call(cloud, http::verb::get, "//s/accounts/999/files").status, 404u);
}

TEST(CloudEmulator, ScriptedRepliesAndControlInterface)
{
    CloudEmulator cloud;
    cloud.scriptReply({401, R"({"code": 401})", "application/json", "/files"});
    EXPECT_EQ(call(cloud, http::verb::get, "/geo").status, 200u) << "a reply waits for its target";
    EXPECT_EQ(call(cloud, http::verb::get, "/s/accounts/1001/files").status, 401u);

    Reply queued = call(cloud, http::verb::post, "/_emulator/next-reply",
                        R"({"status": 503, "body": {"message": "busy"}})", std::nullopt);
    EXPECT_EQ(queued.status, 200u) << queued.body;
    Reply scripted = call(cloud, http::verb::get, "/geo");
    EXPECT_EQ(scripted.status, 503u);
    EXPECT_EQ(scripted.json["message"], "busy");

    Reply seen = call(cloud, http::verb::get, "/_emulator/requests", {}, std::nullopt);
    ASSERT_EQ(seen.json["requests"].size(), 3u) << seen.body;
    EXPECT_EQ(seen.json["requests"][1]["target"], "/s/accounts/1001/files");
    EXPECT_EQ(call(cloud, http::verb::post, "/_emulator/fault", R"({"kind": "sideways"})", std::nullopt).status, 400u);
    EXPECT_EQ(call(cloud, http::verb::post, "/_emulator/reset", {}, std::nullopt).status, 200u);
    EXPECT_TRUE(cloud.serviceRequests().empty());
}

} // namespace
} // namespace tavix::emulator
