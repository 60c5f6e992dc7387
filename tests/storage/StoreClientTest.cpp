#include <restclient/storage/StoreClient.h>

#include <restclient/storage/ResourceClient.h>
#include <tests/support/Loopback.h>
#include <tests/support/ScopedControllerConfig.h>
#include <tests/support/TestCerts.h>

namespace tavix::restclient::storage {
namespace {

namespace http = boost::beast::http;
using testing::json;
using Stored = testing::Completion<StoreResponse, veltrun::TavixErrorResponse>;

TEST(StoreDocuments, PayloadKeepsMetadataOrderAndResponseTakesOnlyStrings)
{
    StoreRequest request;
    request.metadata.add<std::string>("z", "1");
    request.metadata.add<std::string>("a", "2");
    EXPECT_EQ(json(request.getPayload()), json(R"({"resource": {"metadata": {"item": [{"key": "z", "value": "1"},
        {"key": "a", "value": "2"}]}, "contentType": "binary/octet-stream", "name": "", "type": "project"}})"));

    StoreResponse response;
    response.handleResponse(json(R"({"href": 5, "url": "u"})"));
    EXPECT_EQ(response.href.value + "|" + response.expires.value + "|" + response.url.value, "||u");
}

// Account 1001 of the emulator below "/storage/v1/accounts", whose leading slash gives "//".
class StoreClientTest : public testing::LoopbackTest {
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

    // A pre-signed exchange handled by the emulator directly: set-up, not captured.
    emulator::Response blob(http::verb verb, std::string const& url, std::string const& body = "")
    {
        emulator::Request exchange{verb, url.substr(cloud.baseUrl().size()), 11};
        exchange.set(http::field::content_type, "binary/octet-stream");
        exchange.body() = body;
        exchange.prepare_payload();
        return cloud.handle(exchange);
    }

    std::string const path = "/storage/v1/accounts";
};

TEST_F(StoreClientTest, StoreGetDownloadAndRemoveSendTheirRequests)
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
    EXPECT_EQ(sent.body, request("p/o").getPayload());
    std::string const body = "the file's body";
    ASSERT_EQ(blob(http::verb::put, stored.response.url.value, body).result_int(), 200u);

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

    // The download client goes to the object's link as it is given.
    cloud.reset();
    testing::Completion<URLResponse, veltrun::TavixErrorResponse> address;
    ResourceDownloadClient download(io, address.callback());
    ASSERT_FALSE(download.getDownloadURL(stored.response.href.value + "/url", token));
    ASSERT_TRUE(address.wait(io));
    EXPECT_EQ(address.response.href.value, stored.response.href.value);
    EXPECT_EQ(blob(http::verb::get, address.response.url.value).body(), body);

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

TEST_F(StoreClientTest, ARefusedStoreArrivesAsAnErrorDocument)
{
    Stored done;
    StoreClient storeClient = client(done);
    ASSERT_FALSE(storeClient.store(StoreRequest()));
    ASSERT_TRUE(done.wait(io));
    EXPECT_EQ(done.status, 400u);
    EXPECT_FALSE(done.ec);
    EXPECT_EQ(done.error.message.value, "Invalid request");
}

TEST_F(StoreClientTest, AnUnparsableAddressIsReturnedAndNothingIsSent)
{
    Stored done;
    StoreClient storeClient = client(done, "bad host");
    EXPECT_TRUE(storeClient.store(StoreRequest()));
    EXPECT_TRUE(storeClient.remove("http://bad host/objects/1"));
    expectNothingSent(done);
}

TEST_F(StoreClientTest, TheTlsFlagSelectsHttps)
{
    testing::ScopedControllerConfig settings{"ca_file = " + testing::certs::ca() + "\n"};
    emulator::EmulatorConfig config;
    config.tls = testing::certs::trustedServer();
    emulator::CloudEmulator secure(config);
    Stored done;
    StoreClient storeClient(io, done.callback(), "localhost", secure.port(), token, "1001", true, path);
    ASSERT_FALSE(storeClient.store(request("p/o")));
    ASSERT_TRUE(done.wait(io));
    EXPECT_EQ(done.status, 200u) << done.ec.message();
}

} // namespace
} // namespace tavix::restclient::storage
