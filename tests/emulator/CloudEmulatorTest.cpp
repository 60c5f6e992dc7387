#include <tests/emulator/EmulatorCalls.h>
#include <tests/support/ChildProcess.h>
#include <tools/emulator/CloudEmulator.h>

#include <boost/filesystem/operations.hpp>

#include <gtest/gtest.h>

#include <fstream>

#include <sys/stat.h>
#include <unistd.h>

namespace tavix::emulator {
namespace {

using namespace calls;
using boost::beast::http::verb;

// `target` on the emulator, with its configured token unless told otherwise.
Reply call(CloudEmulator& cloud, verb method, std::string const& target, std::string const& body = {},
           Headers const& headers = bearer(kDefaultToken))
{
    return exchange(method, cloud.baseUrl() + target, body, headers);
}

Reply upload(std::string const& url, std::string const& body)
{
    return exchange(verb::put, url, body, {{"Content-Type", "binary/octet-stream"}});
}

std::string const storeBody = R"({"resource": {"metadata": {"item": [{"key": "_filename", "value": "a.bin"},
    {"key": "count", "value": 5}]}, "contentType": "binary/octet-stream", "name": "proj/a.bin", "type": "log"}})";

TEST(CloudEmulator, RoutesOnThePathWithSlashesCollapsedWhateverTheBase)
{
    CloudEmulator cloud;
    for (auto const& [target, status] :
         std::vector<std::pair<std::string, unsigned>>{{"//locator/rest/locations/ACCOUNT", 200},
                                                       {"/x//locations", 200},
                                                       {"//v1/locations/NOPE", 404},
                                                       {"//account/v1/rest/accounts/current", 200},
                                                       {"//v1/accounts/accounts/current", 200},
                                                       {"///geo", 200},
                                                       {"//nowhere", 404}})
        EXPECT_EQ(call(cloud, verb::get, target).status, status) << target;
}

TEST(CloudEmulator, RefusesMissingUnknownOrRevokedAuthorization)
{
    EmulatorConfig config;
    config.authorizations = {"Signed abc"};
    CloudEmulator cloud(config);
    for (Headers const& authorization : {Headers(), bearer("wrong")}) {
        EXPECT_EQ(call(cloud, verb::get, "//a/accounts/current", {}, authorization).status, 401u);
        EXPECT_EQ(call(cloud, verb::get, "/geo", {}, authorization).status, 401u);
    }
    EXPECT_EQ(call(cloud, verb::get, "/geo", {}, {{"Authorization", "Signed abc"}}).status, 200u);
    std::string issued = cloud.issueToken();
    EXPECT_EQ(call(cloud, verb::get, "/geo", {}, bearer(issued)).status, 200u);
    cloud.revokeToken(issued);
    EXPECT_EQ(call(cloud, verb::get, "/geo", {}, bearer(issued)).status, 401u);
}

TEST(CloudEmulator, StoredAndUploadedObjectShowsInQueriesAndSurvivesARestart)
{
    boost::filesystem::path data = boost::filesystem::temp_directory_path() / boost::filesystem::unique_path();
    EmulatorConfig config;
    config.dataDirectory = data.string();
    std::string uploadTarget; // the signed URL's path and query: a restart listens on another port
    {
        CloudEmulator cloud(config);
        Reply stored = call(cloud, verb::post, "//storage/v1/accounts/1001/files", storeBody);
        ASSERT_EQ(stored.status, 200u) << stored.body;
        EXPECT_EQ(upload(stored.json["url"].asString(), "hello body").status, 200u);
        uploadTarget = stored.json["url"].asString().substr(cloud.baseUrl().size());

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
    EXPECT_EQ(upload(restarted.baseUrl() + uploadTarget, "again").status, 200u) << "signed URLs outlive a restart";

    EXPECT_EQ(exchange(verb::delete_, current.json["resource"][0]["href"].asString(), {}, bearer(kDefaultToken)).status,
              200u);
    EXPECT_EQ(call(restarted, verb::get, "//s/accounts/1001/project/proj/latest").status, 404u);
    boost::filesystem::remove_all(data);
}

TEST(CloudEmulator, ABodyInPlaceWhoseRecordWasNotYetRewrittenIsTheObjectsContentAfterARestart)
{
    boost::filesystem::path data = boost::filesystem::temp_directory_path() / boost::filesystem::unique_path();
    EmulatorConfig config;
    config.dataDirectory = data.string();
    std::string id;
    {
        CloudEmulator cloud(config);
        Reply stored = call(cloud, verb::post, "//storage/v1/accounts/1001/files", storeBody);
        ASSERT_EQ(upload(stored.json["url"].asString(), "hello body").status, 200u);
        id = cloud.objects().at(0).id;
    }
    // As the record stood when the process died between renaming the body in and rewriting it,
    // with the rewrite it had begun left aside.
    boost::filesystem::path const record = data / "objects" / (id + ".json");
    std::string text = test::fileText(record.string());
    for (auto [from, to] : {std::pair{"\"uploaded\":true", "\"uploaded\":false"},
                            std::pair{"\"contentLength\":10", "\"contentLength\":0"}}) {
        auto const at = text.find(from);
        ASSERT_NE(at, std::string::npos) << text;
        text.replace(at, std::string(from).size(), to);
    }
    std::ofstream(record.string()) << text;
    std::ofstream((record.string() + ".tmp")) << "{\"id\":";

    CloudEmulator restarted(config);
    Reply current = call(restarted, verb::get, "//storage/v1/accounts");
    ASSERT_EQ(current.json["resource"].size(), 1u) << current.body;
    EXPECT_EQ(current.json["resource"][0]["contentLength"], 10);
    EXPECT_FALSE(boost::filesystem::exists(record.string() + ".tmp"));
    boost::filesystem::remove_all(data);
}

TEST(CloudEmulator, MalformedRequestsGetErrorDocuments)
{
    CloudEmulator cloud;
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

    Reply queued =
        call(cloud, verb::post, "/_emulator/next-reply", R"({"status": 503, "body": {"message": "busy"}})", {});
    EXPECT_EQ(queued.status, 200u) << queued.body;
    Reply scripted = call(cloud, verb::get, "/geo");
    EXPECT_EQ(scripted.status, 503u);
    EXPECT_EQ(scripted.json["message"], "busy");

    Reply seen = call(cloud, verb::get, "/_emulator/requests", {}, {});
    ASSERT_EQ(seen.json["requests"].size(), 3u) << seen.body;
    EXPECT_EQ(seen.json["requests"][1]["target"], "/s/accounts/1001/files");
    // The control route is no way around the token's masking.
    EXPECT_EQ(seen.body.find(kDefaultToken), std::string::npos) << seen.body;
    EXPECT_NE(seen.body.find("\"Bearer emulator-*****\""), std::string::npos) << seen.body;
    EXPECT_EQ(call(cloud, verb::post, "/_emulator/fault", R"({"kind": "sideways"})", {}).status, 400u);
    EXPECT_EQ(call(cloud, verb::post, "/_emulator/reset", {}, {}).status, 200u);
    EXPECT_TRUE(cloud.serviceRequests().empty());
}

// Nobody else reads what it keeps, nor hands it a directory to keep it in.
TEST(CloudEmulator, KeepsItsDataPrivate)
{
    auto const mode = [](boost::filesystem::path const& path) {
        struct stat info {};
        return ::stat(path.c_str(), &info) == 0 ? info.st_mode & 0777 : 0u;
    };
    boost::filesystem::path const data = boost::filesystem::temp_directory_path() / boost::filesystem::unique_path();
    EmulatorConfig config;
    config.dataDirectory = data.string();
    {
        CloudEmulator cloud(config);
        Reply const stored = call(cloud, verb::post, "//storage/v1/accounts/1001/files", storeBody);
        ASSERT_EQ(upload(stored.json["url"].asString(), "private body").status, 200u);
        EXPECT_EQ(mode(data), 0700u);
        EXPECT_EQ(mode(data / "signing.key"), 0600u);
        for (boost::filesystem::directory_iterator it(data / "objects"), end; it != end; ++it)
            EXPECT_EQ(mode(it->path()), 0600u) << it->path();
    }
    ::chmod(data.c_str(), 0777);
    EXPECT_THROW(CloudEmulator{config}, std::runtime_error) << "writable by others";
    if (::geteuid() == 0) {
        ::chmod(data.c_str(), 0700);
        ASSERT_EQ(::chown(data.c_str(), 65534, 65534), 0);
        try {
            CloudEmulator refused(config);
            ADD_FAILURE() << "a directory of another user was taken";
        } catch (std::runtime_error const& e) {
            EXPECT_NE(std::string(e.what()).find("belongs to another user"), std::string::npos) << e.what();
        }
    }
    boost::filesystem::remove_all(data);
}

} // namespace
} // namespace tavix::emulator
