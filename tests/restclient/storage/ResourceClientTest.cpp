#include <restclient/storage/ResourceClient.h>

#include <tests/support/Loopback.h>

#include <functional>

namespace tavix::restclient::storage {
namespace {

namespace http = boost::beast::http;
using One = test::Completion<ResourceResponse, veltrun::TavixErrorResponse>;
using Many = test::Completion<ResourcesResponse, veltrun::TavixErrorResponse>;
using Address = test::Completion<URLResponse, veltrun::TavixErrorResponse>;

std::vector<std::string> names(ResourcesResponse const& response)
{
    std::vector<std::string> result;
    for (Resource const& resource : response.resources) result.push_back(resource.name.value);
    return result;
}

// Account 1001 of the emulator, addressed as the storage URL is split: the path keeps its
// leading slash, so every address has "//" after the port.
class ResourceClientTest : public test::LoopbackTest {
protected:
    void SetUp() override
    {
        // Stored through the emulator's own handler: set-up, not captured.
        for (auto const& [name, type] :
             {std::pair{"p/o", "photo"}, {"p/q", "video"}, {"x1", "photo"}, {"p/r", "project"}}) {
            emulator::Request store{http::verb::post, "/storage/v1/accounts/1001/files", 11};
            store.set(http::field::authorization, "Bearer " + token);
            store.body() = std::string(R"({"resource": {"name": ")") + name + R"(", "type": ")" + type + "\"}}";
            store.prepare_payload();
            ASSERT_EQ(cloud.handle(store).result_int(), 200u);
        }
    }

    std::string const path = "/storage/v1/accounts";
    std::string const account = "//storage/v1/accounts/1001";
};

TEST_F(ResourceClientTest, GetLatestAndCurrentAddressTheirResources)
{
    One done;
    ResourceClient client(io, done.callback(), host, cloud.port(), token, "1001", false, path);
    ASSERT_FALSE(client.get("p", "o"));
    ASSERT_TRUE(done.wait(io));
    EXPECT_EQ(done.response.resource.name.value, "p/o");
    auto const request = onlyRequest();
    EXPECT_EQ(request.requestLine, "GET " + account + "/project/p/o HTTP/1.1");
    expectJsonHeaders(request, "Bearer " + token);

    cloud.reset();
    One latest;
    ResourceClient second(io, latest.callback(), host, cloud.port(), token, "1001", false, path);
    ASSERT_FALSE(second.latest("p"));
    ASSERT_TRUE(latest.wait(io));
    EXPECT_EQ(latest.response.resource.name.value, "p/r");
    EXPECT_EQ(onlyRequest().requestLine, "GET " + account + "/project/p/latest HTTP/1.1");

    cloud.reset();
    Many all;
    ResourceCurrentClient current(io, all.callback(), host, cloud.port(), token, false, path);
    ASSERT_FALSE(current.current());
    ASSERT_TRUE(all.wait(io));
    EXPECT_EQ(names(all.response), (std::vector<std::string>{"p/o", "p/q", "x1", "p/r"}));
    EXPECT_EQ(onlyRequest().requestLine, "GET //storage/v1/accounts HTTP/1.1");
    EXPECT_EQ(onlyRequest().header("Authorization"), "Bearer " + token);
}

TEST_F(ResourceClientTest, SearchesAndListsSendTheirFiltersUnescaped)
{
    struct Case {
        std::function<boost::system::error_code(ResourceSearchClient&)> call;
        std::string tail;
        std::vector<std::string> found;
    };
    for (Case const& c : std::vector<Case>{
             {[](auto& s) { return s.search(); }, "", {"p/o", "p/q", "x1", "p/r"}},
             {[](auto& s) { return s.searchType("photo"); }, "/files?_s=type==photo", {"p/o", "x1"}},
             {[](auto& s) { return s.searchProject("p"); }, "?_s=prefix==p", {"p/o", "p/q", "p/r"}},
             {[](auto& s) { return s.searchTypeProject("photo", "p"); }, "?_s=type==photo,prefix==p", {"p/o"}},
             {[](auto& s) { return s.list("video", "p"); }, "/files/video/p", {"p/q"}},
             {[](auto& s) { return s.list("p"); }, "/files/project/p", {"p/r"}},
             {[](auto& s) { return s.searchProject("x&a=1"); }, "?_s=prefix==x&a=1", {"x1"}},
         }) {
        cloud.reset();
        Many done;
        ResourceSearchClient client(io, done.callback(), host, cloud.port(), token, "1001", false, path);
        ASSERT_FALSE(c.call(client)) << c.tail;
        ASSERT_TRUE(done.wait(io)) << c.tail;
        EXPECT_EQ(names(done.response), c.found) << c.tail;
        EXPECT_EQ(onlyRequest().requestLine, "GET " + account + c.tail + " HTTP/1.1");
        EXPECT_EQ(onlyRequest().header("Authorization"), "Bearer " + token) << c.tail;
    }
}

TEST_F(ResourceClientTest, AnUnparsableAddressIsReturnedAndNothingIsSent)
{
    Many done;
    ResourceClient get(io, {}, "bad host", cloud.port(), token, "1001", false, path);
    ResourceCurrentClient current(io, {}, "bad host", cloud.port(), token, false, path);
    ResourceSearchClient search(io, done.callback(), "bad host", cloud.port(), token, "1001", false, path);
    ResourceDownloadClient download(io, {});
    EXPECT_TRUE(get.latest("p"));
    EXPECT_TRUE(current.current());
    EXPECT_TRUE(search.searchTypeProject("photo", "p"));
    EXPECT_TRUE(download.getDownloadURL("http://bad host/x", token));
    expectNothingSent(done);
}

TEST_F(ResourceClientTest, DownloadAddressUsesOnlyTheGivenLinkAndTokenAndReadsTheErrorDocument)
{
    std::string const other = cloud.issueToken();
    std::string const link = cloud.storageUrl() + "/objects/" + cloud.objects().front().id + "/url";
    Address done;
    ResourceDownloadClient client(io, done.callback());
    ASSERT_FALSE(client.getDownloadURL(link, other));
    ASSERT_TRUE(done.wait(io));
    EXPECT_EQ(done.status, 404u);
    EXPECT_FALSE(done.ec);
    EXPECT_EQ(done.error.message.value, "The object has no content yet");
    EXPECT_EQ(onlyRequest().requestLine, "GET " + link.substr(cloud.baseUrl().size()) + " HTTP/1.1");
    EXPECT_EQ(onlyRequest().header("Authorization"), "Bearer " + other);
}

} // namespace
} // namespace tavix::restclient::storage
