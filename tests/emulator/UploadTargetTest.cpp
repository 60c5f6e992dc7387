#include <tests/emulator/EmulatorCalls.h>
#include <tools/emulator/CloudEmulator.h>

#include <boost/algorithm/hex.hpp>
#include <boost/filesystem/operations.hpp>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <random>

namespace tavix::emulator {
namespace {

using namespace calls;
using boost::beast::http::verb;
namespace fs = boost::filesystem;

Headers const octets = {{"Content-Type", "binary/octet-stream"}};

std::string randomBytes(std::size_t size)
{
    std::mt19937 generator(7);
    std::string bytes(size, '\0');
    for (char& byte : bytes) byte = static_cast<char>(generator());
    return bytes;
}

std::string md5Of(std::string const& bytes)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_md5(), nullptr);
    return boost::algorithm::hex_lower(std::string(reinterpret_cast<char const*>(digest), length));
}

// Creates an object (with "_md5checksum" when given) and returns its pre-signed upload URL.
std::string uploadUrl(CloudEmulator& cloud, std::string const& checksum = {})
{
    std::string const items = checksum.empty() ? "" : R"({"key": "_md5checksum", "value": ")" + checksum + "\"}";
    Reply const stored =
        exchange(verb::post, cloud.storageUrl() + "/files",
                 R"({"resource": {"name": "p/o", "metadata": {"item": [)" + items + "]}}}", bearer(kDefaultToken));
    EXPECT_EQ(stored.status, 200u) << stored.body;
    return stored.json["url"].asString();
}

// Bodies that arrived but were not (or not yet) made an object's content.
std::size_t leftovers(CloudEmulator& cloud)
{
    auto const incoming = cloud.dataDirectory() / "incoming";
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(incoming), fs::directory_iterator()));
}

std::string download(CloudEmulator& cloud, StoredObject const& object)
{
    Reply const link =
        exchange(verb::get, cloud.storageUrl() + "/objects/" + object.id + "/url", {}, bearer(kDefaultToken));
    EXPECT_EQ(link.status, 200u) << link.body;
    return exchange(verb::get, link.json["url"].asString()).body;
}

TEST(UploadTarget, StoresAMultiMegabyteBodyThatMatchesItsChecksumAndKeepsItsSize)
{
    CloudEmulator cloud;
    std::string const body = randomBytes(6 * 1024 * 1024 + 3);
    Reply const put = exchange(verb::put, uploadUrl(cloud, md5Of(body)), body, octets);
    EXPECT_EQ(put.status, 200u) << put.body;
    EXPECT_EQ(exchange(verb::put, uploadUrl(cloud), "no checksum to meet", octets).status, 200u);

    auto const objects = cloud.objects();
    ASSERT_EQ(objects.size(), 2u);
    EXPECT_TRUE(objects[0].uploaded);
    EXPECT_EQ(objects[0].contentLength, body.size());
    EXPECT_TRUE(download(cloud, objects[0]) == body);
    EXPECT_EQ(objects[1].contentLength, 19u);
    EXPECT_EQ(leftovers(cloud), 0u);
}

TEST(UploadTarget, RefusalsAnswerWithAnErrorDocumentAndKeepNoBytes)
{
    std::string const body = "the body";
    struct Case {
        char const* what;
        Headers headers;
        std::string checksum;
        std::string urlSuffix;
        std::chrono::seconds urlLifetime;
        unsigned status;
    };
    std::chrono::seconds const valid(3600), expired(-1);
    for (Case const& c : std::vector<Case>{
             {"wrong type", {{"Content-Type", "application/octet-stream"}}, "", "", valid, 415},
             {"no type", {}, "", "", valid, 415},
             {"forged signature", octets, "", "0", valid, 403},
             {"expired URL", octets, "", "", expired, 403},
             {"checksum mismatch", octets, md5Of("another body"), "", valid, 400},
         }) {
        EmulatorConfig config;
        config.signedUrlLifetime = c.urlLifetime;
        CloudEmulator cloud(config);
        Reply const refused = exchange(verb::put, uploadUrl(cloud, c.checksum) + c.urlSuffix, body, c.headers);
        EXPECT_EQ(refused.status, c.status) << c.what;
        EXPECT_EQ(refused.json["TavixErrorResponse"]["code"].asUInt(), c.status) << c.what << ": " << refused.body;
        EXPECT_FALSE(cloud.objects()[0].uploaded) << c.what;
        EXPECT_EQ(cloud.objects()[0].contentLength, 0u) << c.what;
        EXPECT_EQ(leftovers(cloud), 0u) << c.what;
    }
}

TEST(UploadTarget, AnswersExpectContinueAtOnceAndTakesChunkedBodies)
{
    CloudEmulator cloud;
    std::string const url = uploadUrl(cloud, md5Of("abcdefgh"));
    std::string const target = url.substr(cloud.baseUrl().size());
    std::string const head = "PUT " + target + " HTTP/1.1\r\nHost: h\r\nContent-Type: binary/octet-stream\r\n";

    RawConnection continued(cloud.port());
    continued.send(head + "Content-Length: 8\r\nExpect: 100-continue\r\n\r\n");
    EXPECT_EQ(continued.nextHead(), "HTTP/1.1 100 Continue\r\n\r\n");
    continued.send("abcdefgh");
    EXPECT_EQ(continued.nextHead().rfind("HTTP/1.1 200", 0), 0u);

    RawConnection chunked(cloud.port());
    chunked.send(head + "Transfer-Encoding: chunked\r\nConnection: close\r\n\r\n3\r\nabc\r\n5\r\ndefgh\r\n0\r\n\r\n");
    EXPECT_EQ(chunked.rest().rfind("HTTP/1.1 200", 0), 0u);

    RawConnection refused(cloud.port());
    refused.send("PUT " + target + " HTTP/1.1\r\nHost: h\r\nContent-Length: 8\r\nExpect: 100-continue\r\n\r\n");
    std::string const answer = refused.rest();
    EXPECT_EQ(answer.rfind("HTTP/1.1 415", 0), 0u) << "refused without asking for the body: " << answer;
    EXPECT_NE(answer.find("Connection: close"), std::string::npos) << answer;
    EXPECT_EQ(cloud.objects()[0].contentLength, 8u);
}

TEST(UploadTarget, ScriptedAnswersAndFaultsTakeTheBodyAndKeepNone)
{
    CloudEmulator cloud;
    std::string const url = uploadUrl(cloud);
    cloud.scriptReply({201, "", "text/plain", "/blobs/"});
    EXPECT_EQ(exchange(verb::put, url, "x", {{"Content-Type", "text/plain"}}).status, 201u)
        << "a scripted answer comes first, whatever the upload's own answer would be";
    ASSERT_EQ(exchange(verb::post, cloud.baseUrl() + "/_emulator/next-reply",
                       R"({"status": 503, "body": "busy", "match": "/blobs/"})")
                  .status,
              200u);
    EXPECT_EQ(exchange(verb::put, url, "x", octets).status, 503u);
    cloud.dropNext();
    EXPECT_EQ(exchange(verb::put, url, "x", octets).status, 0u);
    EXPECT_FALSE(cloud.objects()[0].uploaded);
    EXPECT_TRUE(eventually([&] { return leftovers(cloud) == 0; }))
        << "a dropped upload's body goes with its connection";
    EXPECT_EQ(exchange(verb::put, url, "x", octets).status, 200u);
}

TEST(UploadTarget, DropAfterBodyStoresTheBodyThenClosesUnansweredAndARetryKeepsOneObject)
{
    EmulatorConfig config;
    config.randomFaults.dropAfterBody = 1;
    CloudEmulator cloud(config);
    std::string const body = randomBytes(2 * 1024 * 1024 + 5);
    std::string const url = uploadUrl(cloud, md5Of(body));
    for (int attempt = 1; attempt <= 2; ++attempt) {
        Reply const put = exchange(verb::put, url, body, octets);
        EXPECT_EQ(put.status, 0u) << attempt << ": " << put.body;
        EXPECT_TRUE(put.ec) << attempt;
        ASSERT_EQ(cloud.objects().size(), 1u) << "the same URL again stores over the same object";
        EXPECT_TRUE(cloud.objects()[0].uploaded);
        EXPECT_EQ(cloud.objects()[0].contentLength, body.size());
        EXPECT_EQ(cloud.injectedFaults()[FaultDice::dropAfterBody], std::uint64_t(attempt));
    }
    EXPECT_TRUE(download(cloud, cloud.objects()[0]) == body);

    EXPECT_EQ(exchange(verb::put, uploadUrl(cloud, md5Of("another body")), body, octets).status, 400u)
        << "a refused body is not stored, so its answer comes";
    Reply const report = exchange(verb::get, cloud.baseUrl() + "/_emulator/faults");
    EXPECT_EQ(report.json["injected"]["drop-after-body"].asUInt64(), 2u) << report.body;
    EXPECT_EQ(leftovers(cloud), 0u);
}

} // namespace
} // namespace tavix::emulator
