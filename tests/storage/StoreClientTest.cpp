#include <restclient/storage/StoreClient.h>

#include <restclient/storage/ResourceClient.h>
#include <tests/support/Loopback.h>
#include <tests/support/ScopedControllerConfig.h>
#include <tests/support/TestCerts.h>

#include <optional>

namespace tavix::restclient::storage {
namespace {

namespace http = boost::beast::http;
using testing::json;
using Stored = testing::Completion<StoreResponse, veltrun::TavixErrorResponse>;

TEST(StoreRequest, PayloadIsTheResourceWithItsMetadataInInsertionOrder)
{
    StoreRequest request;
    EXPECT_EQ(json(request.getPayload()), json(R"({"resource": {"metadata": {"item": []},
        "contentType": "binary/octet-stream", "name": "", "type": "project"}})"));
    request.metadata.add<std::string>("z", "1");
    request.metadata.add<std::string>("a", "2");
    EXPECT_EQ(json(request.getPayload())["resource"]["metadata"]["item"],
              json(R"([{"key": "z", "value": "1"}, {"key": "a", "value": "2"}])"));
}

TEST(StoreResponse, TakesOnlyStringMembers)
{
    StoreResponse response;
    response.handleResponse(json(R"({"href": 5, "url": "u"})"));
    EXPECT_EQ(response.href.value + "|" + response.expires.value + "|" + response.url.value, "||u");
}

// Account 1001 of the emulator below the base path "/storage/v1/accounts", whose leading
// slash gives "//" after the port.
class StoreClientTest : public testing::LoopbackTest {
protected:
    using testing::LoopbackTest::LoopbackTest;

    StoreClient client(Stored& done, std::string const& at = "127.0.0.1", bool tls = false)
    {
        return StoreClient(io, done.callback(), at, cloud.port(), token, "1001", tls, path);
    }

    StoreRequest request(std::string const& name)
    {
        StoreRequest request;
        request.name.value = name;
        request.metadata.add<std::string>("origin", "test");
        return request;
    }

    // An exchange with a pre-signed address over the platform HTTP client: the answer's status.
    unsigned int transfer(http::verb verb, std::string const& url, std::string const& body, std::string* received)
    {
        std::optional<net::http::HttpResponse> answer;
        net::http::HttpClient http(io, [&](net::http::HttpResponse const& response, boost::system::error_code const&) {
            answer = response;
        });
        boost::system::error_code ec;
        net::http::HttpRequest request;
        request.url(net::http::Url::createUrl(url, ec));
        request.method(verb);
        request.contentType("binary/octet-stream");
        request.payload(body);
        EXPECT_FALSE(http.asyncRequest(request));
        EXPECT_TRUE(testing::runUntil(io, [&] { return answer.has_value(); }, std::chrono::seconds(10)));
        if (answer) *received = answer->payload();
        return answer ? answer->status() : 0;
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
    EXPECT_EQ(cloud.objects().front().metadataItems, json(R"([{"key": "origin", "value": "test"}])"));
    EXPECT_EQ(stored.response.href.value, cloud.storageUrl() + "/objects/" + id);
    EXPECT_EQ(stored.response.url.value.rfind(cloud.baseUrl() + "/blobs/" + id + "?", 0), 0u);
    EXPECT_NE(stored.response.expires.value, "");
    auto sent = onlyRequest();
    EXPECT_EQ(sent.requestLine, "POST //storage/v1/accounts/1001/files HTTP/1.1");
    expectJsonHeaders(sent, "Bearer " + token);
    EXPECT_EQ(sent.body, request("p/o").getPayload());

    cloud.reset();
    Stored again;
    StoreClient getClient = client(again);
    ASSERT_FALSE(getClient.get("p", "o"));
    ASSERT_TRUE(again.wait(io));
    EXPECT_EQ(again.response.href.value, stored.response.href.value);
    sent = onlyRequest();
    EXPECT_EQ(sent.requestLine, "GET //storage/v1/accounts/1001/project/p/o/url HTTP/1.1");
    expectJsonHeaders(sent, "Bearer " + token);
    EXPECT_EQ(sent.header("Content-Length"), std::nullopt);

    cloud.reset();
    Stored removed;
    StoreClient removeClient(io, removed.callback(), "elsewhere.invalid", 1, token, "9", true, "/nowhere");
    ASSERT_FALSE(removeClient.remove(stored.response.href.value));
    ASSERT_TRUE(removed.wait(io));
    EXPECT_EQ(removed.status, 200u);
    EXPECT_TRUE(cloud.objects().empty());
    sent = onlyRequest();
    EXPECT_EQ(sent.requestLine, "DELETE /storage/v1/accounts/1001/objects/" + id + " HTTP/1.1");
    expectJsonHeaders(sent, "Bearer " + token);
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
    EXPECT_EQ(done.response.url.value, "");
}

TEST_F(StoreClientTest, AnUnparsableAddressIsReturnedAndNothingIsSent)
{
    Stored done;
    StoreClient storeClient = client(done, "bad host");
    EXPECT_TRUE(storeClient.store(StoreRequest()));
    EXPECT_TRUE(storeClient.get("p", "o"));
    EXPECT_TRUE(storeClient.remove("http://bad host/objects/1"));
    io.poll();
    EXPECT_EQ(done.calls, 0);
    EXPECT_TRUE(cloud.serviceRequests().empty());
}

TEST_F(StoreClientTest, AStoredBodyIsFoundAndDownloadedAgain)
{
    Stored stored;
    StoreClient storeClient = client(stored);
    ASSERT_FALSE(storeClient.store(request("trip/file")));
    ASSERT_TRUE(stored.wait(io));
    std::string const body = "the file's body";
    std::string ignored, received;
    ASSERT_EQ(transfer(http::verb::put, stored.response.url.value, body, &ignored), 200u);

    testing::Completion<ResourceResponse, veltrun::TavixErrorResponse> found;
    ResourceClient resourceClient(io, found.callback(), host, cloud.port(), token, "1001", false, path);
    ASSERT_FALSE(resourceClient.latest("trip"));
    ASSERT_TRUE(found.wait(io));
    EXPECT_EQ(found.response.resource.contentLength.value, body.size());
    EXPECT_EQ(found.response.resource.metadata.get<std::string>("origin"), "test");

    testing::Completion<URLResponse, veltrun::TavixErrorResponse> address;
    ResourceDownloadClient download(io, address.callback());
    ASSERT_FALSE(download.getDownloadURL(found.response.resource.url.href.value, token));
    ASSERT_TRUE(address.wait(io));
    EXPECT_EQ(address.response.href.value, stored.response.href.value);
    EXPECT_EQ(transfer(http::verb::get, address.response.url.value, "", &received), 200u);
    EXPECT_EQ(received, body);
}

class StoreClientTlsTest : public StoreClientTest {
protected:
    StoreClientTlsTest() : StoreClientTest(config()) {}

    static emulator::EmulatorConfig config()
    {
        emulator::EmulatorConfig config;
        config.tls = testing::certs::trustedServer();
        return config;
    }

    testing::ScopedControllerConfig settings{"ca_file = " + testing::certs::ca() + "\n"};
};

TEST_F(StoreClientTlsTest, TheTlsFlagSelectsHttps)
{
    Stored done;
    StoreClient storeClient = client(done, "localhost", true);
    ASSERT_FALSE(storeClient.store(request("p/o")));
    ASSERT_TRUE(done.wait(io));
    EXPECT_EQ(done.status, 200u) << done.ec.message();
    EXPECT_EQ(onlyRequest().requestLine, "POST //storage/v1/accounts/1001/files HTTP/1.1");
}

} // namespace
} // namespace tavix::restclient::storage
