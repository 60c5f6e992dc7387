#include <restclient/storage/StoreClient.h>

#include <tests/support/Loopback.h>

namespace tavix::restclient::storage {
namespace {

namespace http = boost::beast::http;
using test::json;
using Stored = test::Completion<StoreResponse, veltrun::TavixErrorResponse>;

// Account 1001 of the emulator below "/storage/v1/accounts", whose leading slash gives "//".
class StoreClientTest : public test::LoopbackTest {
protected:
    StoreClient client(Stored& done, std::string const& at = "127.0.0.1")
    {
        return StoreClient(io, done.callback(), at, cloud.port(), token, "1001", false, path);
    }

    static StoreRequest request(std::string const& name)
    {
        StoreRequest request;
        request.name.value = name;
        request.metadata.add<std::string>("origin", "test");
        return request;
    }

    // Gives the object content through the emulator's own handler: set-up, not captured.
    void upload(std::string const& url)
    {
        emulator::Request put{http::verb::put, url.substr(cloud.baseUrl().size()), 11};
        put.set(http::field::content_type, "binary/octet-stream");
        put.body() = "the file's body";
        put.prepare_payload();
        ASSERT_EQ(cloud.handle(put).result_int(), 200u);
    }

    std::string const path = "/storage/v1/accounts";
};

TEST_F(StoreClientTest, StoreGetAndRemoveSendTheirRequests)
{
    Stored stored;
    StoreClient storeClient = client(stored);
    ASSERT_FALSE(storeClient.store(request("p/o")));
    ASSERT_TRUE(stored.wait(io));
    ASSERT_EQ(cloud.objects().size(), 1u);
    std::string const id = cloud.objects().front().id;
    EXPECT_EQ(stored.response.href.value, cloud.storageUrl() + "/objects/" + id);
    EXPECT_EQ(stored.response.url.value.rfind(cloud.baseUrl() + "/blobs/" + id + "?", 0), 0u);
    EXPECT_NE(stored.response.expires.value, "");
    auto sent = onlyRequest();
    EXPECT_EQ(sent.requestLine, "POST //storage/v1/accounts/1001/files HTTP/1.1");
    expectJsonHeaders(sent, "Bearer " + token);
    EXPECT_EQ(json(sent.body), json(R"({"resource": {"metadata": {"item": [{"key": "origin", "value": "test"}]},
        "contentType": "binary/octet-stream", "name": "p/o", "type": "project"}})"));
    upload(stored.response.url.value);

    cloud.reset();
    Stored again;
    StoreClient getClient = client(again);
    ASSERT_FALSE(getClient.get("p", "o"));
    ASSERT_TRUE(again.wait(io));
    EXPECT_EQ(again.response.href.value, stored.response.href.value);
    sent = onlyRequest();
    EXPECT_EQ(sent.requestLine, "GET //storage/v1/accounts/1001/project/p/o/url HTTP/1.1");
    EXPECT_EQ(sent.header("Authorization"), "Bearer " + token);
    EXPECT_EQ(sent.header("Content-Length"), std::nullopt);

    // Removal goes to the link alone, whatever host and path the client was given.
    cloud.reset();
    Stored removed;
    StoreClient elsewhere(io, removed.callback(), "elsewhere.invalid", 1, token, "9", true, "/nowhere");
    ASSERT_FALSE(elsewhere.remove(stored.response.href.value));
    ASSERT_TRUE(removed.wait(io));
    EXPECT_TRUE(cloud.objects().empty());
    sent = onlyRequest();
    EXPECT_EQ(sent.requestLine, "DELETE /storage/v1/accounts/1001/objects/" + id + " HTTP/1.1");
    EXPECT_EQ(sent.header("Authorization"), "Bearer " + token);
}

TEST_F(StoreClientTest, AnUnparsableAddressIsReturnedAndNothingIsSent)
{
    Stored done;
    StoreClient storeClient = client(done, "bad host");
    EXPECT_TRUE(storeClient.store(StoreRequest()));
    EXPECT_TRUE(storeClient.remove("http://bad host/objects/1"));
    expectNothingSent(done);
}

} // namespace
} // namespace tavix::restclient::storage
