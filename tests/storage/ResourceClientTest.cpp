#include <restclient/storage/ResourceClient.h>

#include <tests/support/Loopback.h>

#include <fmt/format.h>

#include <functional>

namespace tavix::restclient::storage {
namespace {

namespace http = boost::beast::http;
using testing::json;
using One = testing::Completion<ResourceResponse, veltrun::TavixErrorResponse>;
using Many = testing::Completion<ResourcesResponse, veltrun::TavixErrorResponse>;
using Address = testing::Completion<URLResponse, veltrun::TavixErrorResponse>;

std::vector<std::string> names(ResourcesResponse const& response)
{
    std::vector<std::string> result;
    for (Resource const& resource : response.resources) result.push_back(resource.name.value);
    return result;
}

// Account 1001 of the emulator, addressed as the storage URL is split: the path keeps its
// leading slash, so every address has "//" after the port.
class ResourceClientTest : public testing::LoopbackTest {
protected:
    void SetUp() override
    {
        seed("p/o", "photo", R"([{"key": "camera", "value": "front"}, {"key": "frames", "value": 3}])");
        seed("p/q", "video");
        seed("x1", "photo");
        seed("p/r", "project");
    }

    // Stores an object through the emulator's own handler: set-up, not captured.
    void seed(std::string const& name, std::string const& type, std::string const& items = "[]")
    {
        emulator::Request store{http::verb::post, "/storage/v1/accounts/1001/files", 11};
        store.set(http::field::authorization, "Bearer " + token);
        store.body() = fmt::format(R"({{"resource": {{"name": "{}", "type": "{}", "metadata": {{"item": {}}}}}}})",
                                   name, type, items);
        store.prepare_payload();
        ASSERT_EQ(cloud.handle(store).result_int(), 200u);
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
    EXPECT_EQ(done.status, 200u);
    Resource const& resource = done.response.resource;
    EXPECT_EQ(resource.name.value, "p/o");
    EXPECT_EQ(resource.metadata.get<std::string>("camera"), "front");
    EXPECT_EQ(resource.metadata.get<unsigned int>("frames"), 3u);
    EXPECT_EQ(resource.url.href.value, resource.href.value + "/url");
    auto const request = onlyRequest();
    EXPECT_EQ(request.requestLine, "GET " + account + "/project/p/o HTTP/1.1");
    expectJsonHeaders(request, "Bearer " + token);

    cloud.reset();
    One latest;
    ResourceClient second(io, latest.callback(), host, cloud.port(), token, "1001", false, path);
    ASSERT_FALSE(second.latest("p"));
    ASSERT_TRUE(latest.wait(io));
    EXPECT_EQ(latest.response.resource.name.value, "p/r");
    EXPECT_EQ(onlyRequest().target, account + "/project/p/latest");

    cloud.reset();
    Many all;
    ResourceCurrentClient current(io, all.callback(), host, cloud.port(), token, false, path);
    ASSERT_FALSE(current.current());
    ASSERT_TRUE(all.wait(io));
    EXPECT_EQ(names(all.response), (std::vector<std::string>{"p/o", "p/q", "x1", "p/r"}));
    EXPECT_EQ(onlyRequest().requestLine, "GET //storage/v1/accounts HTTP/1.1");
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
        auto const request = onlyRequest();
        EXPECT_EQ(request.requestLine, "GET " + account + c.tail + " HTTP/1.1");
        expectJsonHeaders(request, "Bearer " + token);
    }
}

TEST_F(ResourceClientTest, AnErrorDocumentArrivesWithItsStatus)
{
    cloud.replyNext(401, R"({"code": 401, "subCode": 3, "message": "expired"})");
    Many done;
    ResourceSearchClient client(io, done.callback(), host, cloud.port(), token, "1001", false, path);
    ASSERT_FALSE(client.searchType("photo"));
    ASSERT_TRUE(done.wait(io));
    EXPECT_EQ(done.status, 401u);
    EXPECT_FALSE(done.ec);
    EXPECT_EQ(done.error.subCode.value, 3u);
    EXPECT_TRUE(done.response.resources.empty());
}

TEST_F(ResourceClientTest, AnUnparsableAddressIsReturnedAndNothingIsSent)
{
    One one;
    Many many;
    Address address;
    ResourceClient get(io, one.callback(), "bad host", cloud.port(), token, "1001", false, path);
    ResourceCurrentClient current(io, many.callback(), "bad host", cloud.port(), token, false, path);
    ResourceSearchClient search(io, many.callback(), "bad host", cloud.port(), token, "1001", false, path);
    ResourceDownloadClient download(io, address.callback());
    EXPECT_TRUE(get.latest("p"));
    EXPECT_TRUE(current.current());
    EXPECT_TRUE(search.searchTypeProject("photo", "p"));
    EXPECT_TRUE(download.getDownloadURL("http://bad host/x", token));
    io.poll();
    EXPECT_EQ(one.calls + many.calls + address.calls, 0);
    EXPECT_TRUE(cloud.serviceRequests().empty());
}

TEST_F(ResourceClientTest, DownloadAddressUsesOnlyTheGivenLinkAndToken)
{
    std::string const other = cloud.issueToken();
    std::string const link = cloud.storageUrl() + "/objects/" + cloud.objects().front().id + "/url";
    Address done;
    ResourceDownloadClient client(io, done.callback());
    ASSERT_FALSE(client.getDownloadURL(link, other));
    ASSERT_TRUE(done.wait(io));
    EXPECT_EQ(done.status, 404u);
    EXPECT_EQ(done.error.message.value, "The object has no content yet");
    auto const request = onlyRequest();
    EXPECT_EQ(request.requestLine, "GET " + link.substr(cloud.baseUrl().size()) + " HTTP/1.1");
    expectJsonHeaders(request, "Bearer " + other);
}

} // namespace
} // namespace tavix::restclient::storage
