// Shared by the uploader tests: the cloud emulator on loopback, controller settings pointing the
// uploader and its authentication at it, files to upload. Each test runs in a process of its own
// under ctest, so the uploader's process-wide Account URL cache and back-off start fresh.
#pragma once

#include <restclient/storage/FileUploader.h>
#include <tests/support/ScopedControllerConfig.h>
#include <tests/support/TestCerts.h>
#include <tools/emulator/CloudEmulator.h>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <map>
#include <memory>
#include <string>

namespace tavix::test {

namespace fs = boost::filesystem;
using restclient::storage::FileUploader;

// Ample for a chain without transfer retries; a hung worker fails the test instead.
inline constexpr std::chrono::seconds kBound{60};
inline std::string const kAppKey = "uploader-test-key";

// HTTPS that requires a client certificate signed by the test CA.
inline emulator::EmulatorConfig httpsConfig()
{
    emulator::EmulatorConfig config;
    config.tls = certs::trustedServer();
    config.tls->clientCa = certs::ca();
    config.tls->requireClientCertificate = true;
    return config;
}

// A services' error document, in the emulator's own shape.
inline std::string errorDocument(unsigned code)
{
    return R"({"TavixErrorResponse": {"code": )" + std::to_string(code)
        + R"(, "subCode": 1, "message": "scripted", "details": ""}})";
}

class UploaderTest : public ::testing::Test {
protected:
    explicit UploaderTest(emulator::EmulatorConfig config = {})
        : cloud(std::move(config)), dir(fs::temp_directory_path() / fs::unique_path("uploader-%%%%-%%%%"))
    {
        fs::create_directories(dir);
        writeSettings(cloud.locatorUrl());
    }
    ~UploaderTest() override
    {
        boost::system::error_code ignored;
        fs::remove_all(dir, ignored);
    }

    void writeSettings(std::string const& locatorUrl) const
    {
        std::string tls = "ca_file = " + certs::ca() + "\nclient_cert_file = " + certs::client() + "\n";
        settings.write("locator_url = " + locatorUrl + "\nauth_url = " + cloud.tokenUrl()
                       + "\ncommon_name = controller-7\n" + (cloud.config().tls ? tls : ""));
    }

    fs::path makeFile(std::string const& name, std::string const& content) const
    {
        std::ofstream((dir / name).string(), std::ios::binary) << content;
        return dir / name;
    }

    std::unique_ptr<FileUploader> start(fs::path const& file, std::map<std::string, std::string> const& metadata = {},
                                        FileUploader::Finished onFinished = {}) const
    {
        return std::make_unique<FileUploader>(file, "proj/" + file.filename().string(), "log", metadata, kAppKey,
                                              std::move(onFinished));
    }
    // A small file, uploaded to the end.
    std::unique_ptr<FileUploader> upload() const
    {
        auto uploader = start(makeFile("a.txt", "some bytes"));
        EXPECT_TRUE(uploader->WaitFinished(kBound)) << "still at step " << uploader->step;
        return uploader;
    }

    static void expectOutcome(FileUploader const& uploader, int code, std::string const& message)
    {
        EXPECT_EQ(uploader.step, 6);
        EXPECT_EQ(uploader.errorCode, code) << uploader.errorMessage;
        EXPECT_EQ(uploader.errorMessage, message);
    }

    std::size_t requestsTo(std::string const& text) const
    {
        std::size_t count = 0;
        for (auto const& request : cloud.serviceRequests()) count += request.target.find(text) != std::string::npos;
        return count;
    }

    emulator::CloudEmulator cloud;
    ScopedControllerConfig settings;
    fs::path dir;
};

} // namespace tavix::test
