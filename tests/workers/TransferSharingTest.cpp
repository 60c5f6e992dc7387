// The transfer's kept connections and TLS sessions: what they save, and that nothing made under a
// CA bundle, client certificate or setting that has since changed is ever used again.
#include <tests/support/IssuedCertificate.h>
#include <tests/workers/UploaderFixture.h>

#include <curl/curl.h>

#include <thread>
#include <vector>

namespace tavix::test {
namespace {

using namespace std::chrono_literals;

class TransferSharing : public UploaderTest {
protected:
    TransferSharing() : UploaderTest(httpsConfig()) {}

    // One upload, its transfer trusting `caFile`; returns its outcome code.
    int uploadTrusting(std::string const& caFile, std::string const& name = "a.txt")
    {
        auto uploader = start(makeFile(name, "some bytes of " + name));
        uploader->SetCACertFile(caFile);
        EXPECT_TRUE(uploader->WaitFinished(kBound)) << "still at step " << uploader->step;
        return uploader->errorCode;
    }

    emulator::ConnectionCounts counts() { return cloud.server().connectionCounts(); }

    // The client certificate's common name on the last PUT, as the server saw it.
    std::string lastSenderName()
    {
        std::string name;
        for (auto const& request : cloud.server().requests())
            if (request.method == "PUT") name = request.clientCommonName;
        return name;
    }

    // `files` copied over `target` by rename, as provisioning replaces a file.
    void replace(std::string const& target, std::vector<std::string> const& files) const
    {
        std::ofstream out(target + ".next", std::ios::binary);
        for (auto const& file : files) out << std::ifstream(file, std::ios::binary).rdbuf();
        out.close();
        fs::rename(target + ".next", target);
    }
};

TEST_F(TransferSharing, FirstUploadMakesOneFullHandshakeAndLaterOnesNoneAndNoTransferConnection)
{
    ASSERT_EQ(uploadTrusting(certs::ca()), 0);
    EXPECT_EQ(counts().fullHandshakes, 1u) << "the transfer resumes the REST steps' session";
    for (int i = 0; i < 3; ++i) {
        auto const before = counts();
        ASSERT_EQ(uploadTrusting(certs::ca(), "later" + std::to_string(i)), 0);
        EXPECT_EQ(counts().fullHandshakes, before.fullHandshakes);
        EXPECT_EQ(counts().connections - before.connections, 1u) << "only the REST steps' own connection";
    }
}

TEST_F(TransferSharing, ReplacedCaBundleOrClientCertificateTakesEffectOnTheNextUpload)
{
    std::string const ca = (dir / "transfer-ca.pem").string();
    replace(ca, {certs::ca()});
    ASSERT_EQ(uploadTrusting(ca, "one"), 0);

    // A bundle that does not hold the server's CA: the kept connection must not be used. The
    // first attempt's failure is enough; the retries are not waited for.
    replace(ca, {certs::file("untrusted.pem")});
    {
        auto uploader = start(makeFile("two", "bytes"));
        uploader->SetCACertFile(ca);
        auto const deadline = std::chrono::steady_clock::now() + kBound;
        while (uploader->errorCode == 0 && uploader->step != 6 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(10ms);
        EXPECT_EQ(uploader->errorCode, CURLE_PEER_FAILED_VERIFICATION) << uploader->errorMessage;
        uploader->Cancel();
    }
    replace(ca, {certs::ca()});
    ASSERT_EQ(uploadTrusting(ca, "three"), 0);
    EXPECT_EQ(lastSenderName(), "restclient test client");

    // Another client certificate in the same file: the server sees it on the very next transfer,
    // neither over the kept connection nor through a session the REST steps made with the old one
    // (the transfer trusts the REST steps' bundle here, so that their sessions are on offer).
    auto const issued =
        certs::issueServerCertificate(dir.string(), "rotated device", "DNS:device.example", -60s, 3600s);
    std::string const clientCert = (dir / "client.pem").string();
    replace(clientCert, {certs::client()});
    settings.write("locator_url = " + cloud.locatorUrl() + "\nauth_url = " + cloud.tokenUrl()
                   + "\nca_file = " + certs::ca() + "\nclient_cert_file = " + clientCert + "\n");
    ASSERT_EQ(uploadTrusting(certs::ca(), "four"), 0);
    EXPECT_EQ(lastSenderName(), "restclient test client");
    replace(clientCert, {issued.certificateChain, issued.privateKey});
    ASSERT_EQ(uploadTrusting(certs::ca(), "five"), 0);
    EXPECT_EQ(lastSenderName(), "rotated device");
}

TEST_F(TransferSharing, ManyUploadersAtOnceShareSafely)
{
    constexpr int kUploaders = 8;
    std::vector<std::unique_ptr<FileUploader>> uploaders;
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < kUploaders; ++i) {
            uploaders.push_back(start(makeFile("f" + std::to_string(round) + "-" + std::to_string(i), "bytes")));
            uploaders.back()->SetCACertFile(certs::ca());
        }
        for (auto& uploader : uploaders) {
            ASSERT_TRUE(uploader->WaitFinished(kBound));
            EXPECT_EQ(uploader->errorCode, 0) << uploader->errorMessage;
        }
        uploaders.clear();
    }
    EXPECT_EQ(cloud.objects().size(), 2u * kUploaders);
}

TEST_F(TransferSharing, ReuseOffGivesEveryTransferItsOwnConnectionAsBefore)
{
    settings.write("locator_url = " + cloud.locatorUrl() + "\nauth_url = " + cloud.tokenUrl() + "\nca_file = "
                   + certs::ca() + "\nclient_cert_file = " + certs::client() + "\nconnection_reuse = false\n");
    ASSERT_EQ(uploadTrusting(certs::ca()), 0);
    for (int i = 0; i < 2; ++i) {
        auto const before = counts();
        ASSERT_EQ(uploadTrusting(certs::ca(), "later" + std::to_string(i)), 0);
        // Account and store requests resume the REST session; the transfer starts afresh.
        EXPECT_EQ(counts().connections - before.connections, 3u);
        EXPECT_EQ(counts().fullHandshakes - before.fullHandshakes, 1u);
    }
}

} // namespace
} // namespace tavix::test
