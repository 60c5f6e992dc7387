// restclient-emulator run as a device's developer would: its own certificates, the settings
// file a device reads, and its data kept across a restart.
#include <tavix/controller/Settings.h>
#include <tests/emulator/EmulatorCalls.h>
#include <tests/support/ChildProcess.h>
#include <tests/support/ScopedControllerConfig.h>

#include <boost/filesystem.hpp>

#include <gtest/gtest.h>

#include <csignal>
#include <map>
#include <memory>
#include <random>

namespace tavix::emulator {
namespace {

using namespace calls;
using boost::beast::http::verb;
using test::ChildProcess;
using test::fileText;
namespace fs = boost::filesystem;

std::vector<std::string> program(std::vector<std::string> args)
{
    args.insert(args.begin(), RESTCLIENT_EMULATOR);
    return args;
}

// The base URL once it listens ("" if it exits or does not listen within the bound).
std::string baseUrl(ChildProcess& emulator)
{
    std::string url;
    eventually([&] {
        std::string const text = emulator.out();
        auto const at = text.find("listening on ");
        auto const end = text.find('\n', at);
        if (at != std::string::npos && end != std::string::npos) url = text.substr(at + 13, end - at - 13);
        // The settings file is written after the address is printed.
        return (!url.empty() && text.find("controller settings written") != std::string::npos) || emulator.exited();
    });
    return url;
}

TEST(EmulatorProgram, MakesItsCertificatesWritesTheDeviceSettingsAndKeepsItsDataAcrossRestarts)
{
    fs::path const data = fs::temp_directory_path() / fs::unique_path("emu-data-%%%%%%");
    std::string const settingsFile = data.string() + ".conf";
    std::vector<std::string> const args = program(
        {"--make-certs", "--require-client-cert", "--data-dir", data.string(), "--write-settings", settingsFile});
    std::string ca;
    {
        ChildProcess emulator(args);
        std::string const base = baseUrl(emulator);
        ASSERT_EQ(base.rfind("https://127.0.0.1:", 0), 0u) << emulator.out() << emulator.err();
        boost::system::error_code ec;
        std::string const text = fileText(settingsFile);
        controller::Settings const settings = controller::Settings::parse(text, ec);
        ASSERT_FALSE(ec) << text;
        EXPECT_EQ(settings.locatorUrl, base + "/locator/rest");
        EXPECT_EQ(settings.authUrl, base + "/oauth/token");
        EXPECT_EQ(settings.caFile, (data / "certs" / "ca.pem").string());
        EXPECT_EQ(settings.clientCertFile, (data / "certs" / "client.pem").string());
        ca = fileText(settings.caFile);

        test::ScopedControllerConfig device(text);
        Reply const token = exchange(verb::post, settings.authUrl, "grant_type=client_credentials&client_id=dev",
                                     {{"Content-Type", "application/x-www-form-urlencoded"}});
        ASSERT_EQ(token.status, 200u) << token.body;
        Reply const stored =
            exchange(verb::post, base + "/storage/v1/accounts/1001/files", R"({"resource": {"name": "p/kept"}})",
                     bearer(token.json["access_token"].asString()));
        ASSERT_EQ(stored.status, 200u) << stored.body;
        EXPECT_EQ(
            exchange(verb::put, stored.json["url"].asString(), "kept bytes", {{"Content-Type", "binary/octet-stream"}})
                .status,
            200u);
        device.write("ca_file = " + settings.caFile + "\n");
        EXPECT_EQ(exchange(verb::get, settings.locatorUrl + "/locations").status, 0u)
            << "a client certificate is required";
        EXPECT_EQ(emulator.stop(), 0);
    }
    {
        ChildProcess restarted(args);
        std::string const base = baseUrl(restarted);
        ASSERT_FALSE(base.empty()) << restarted.err();
        EXPECT_EQ(fileText((data / "certs" / "ca.pem").string()), ca) << "devices keep trusting its CA";
        test::ScopedControllerConfig device(fileText(settingsFile));
        Reply const objects = exchange(verb::get, base + "/storage/v1/accounts", {}, bearer(kDefaultToken));
        ASSERT_EQ(objects.json["resource"].size(), 1u) << objects.body;
        EXPECT_EQ(objects.json["resource"][0]["contentLength"], 10);
    }
    ChildProcess refused(program({"--require-client-cert"}));
    EXPECT_EQ(refused.wait(), 2);
    EXPECT_NE(refused.err().find("--require-client-cert needs"), std::string::npos) << refused.err();
    fs::remove_all(data);
    fs::remove(settingsFile);
}

// Objects (name → contentLength) as the restarted emulator lists them.
std::map<std::string, unsigned> listed(std::string const& base)
{
    Reply const objects = exchange(verb::get, base + "/storage/v1/accounts", {}, bearer(kDefaultToken));
    std::map<std::string, unsigned> found;
    for (Json::Value const& object : objects.json["resource"])
        found[object["name"].asString()] = object["contentLength"].asUInt();
    return found;
}

TEST(EmulatorProgram, KilledOrStoppedMidUploadItRestartsOnItsPortWithEveryWholeBodyAndNoPartOfAnother)
{
    fs::path const data = fs::temp_directory_path() / fs::unique_path("emu-data-%%%%%%");
    std::string const settingsFile = data.string() + ".conf";
    std::mt19937 generator(11);
    std::string whole(512 * 1024, '\0');
    for (char& byte : whole) byte = static_cast<char>(generator());
    std::size_t const partialSize = 3 * 1024 * 1024;
    std::string port = "0";
    auto start = [&] {
        return std::make_unique<ChildProcess>(
            program({"--data-dir", data.string(), "--port", port, "--write-settings", settingsFile}));
    };
    for (int const signal : {SIGKILL, SIGTERM}) {
        SCOPED_TRACE(signal);
        auto emulator = start();
        std::string const base = baseUrl(*emulator);
        ASSERT_FALSE(base.empty()) << emulator->err();
        if (port != "0") {
            EXPECT_EQ(base, "http://127.0.0.1:" + port) << "the same port after a kill";
        }
        port = base.substr(base.rfind(':') + 1);
        auto storeUrl = [&](std::string const& name) {
            Reply const stored = exchange(verb::post, base + "/storage/v1/accounts/1001/files",
                                          R"({"resource": {"name": ")" + name + "\"}}", bearer(kDefaultToken));
            EXPECT_EQ(stored.status, 200u) << stored.body;
            return stored.json["url"].asString();
        };
        std::string const suffix = std::to_string(signal);
        EXPECT_EQ(
            exchange(verb::put, storeUrl("p/whole-" + suffix), whole, {{"Content-Type", "binary/octet-stream"}}).status,
            200u);
        std::string const target = storeUrl("p/partial-" + suffix).substr(base.size());
        RawConnection partial(static_cast<unsigned short>(std::stoi(port)));
        partial.send("PUT " + target + " HTTP/1.1\r\nHost: h\r\nContent-Type: binary/octet-stream\r\nContent-Length: "
                     + std::to_string(partialSize) + "\r\n\r\n" + std::string(partialSize * 2 / 3, 'p'));
        EXPECT_TRUE(eventually([&] {
            boost::system::error_code ec;
            for (fs::directory_iterator it(data / "incoming"), end; it != end; ++it) {
                if (fs::file_size(it->path(), ec) > 0 && !ec) return true;
            }
            return false;
        })) << "the body is on its way to disk";
        EXPECT_EQ(emulator->stop(signal), signal == SIGKILL ? 128 + SIGKILL : 0) << emulator->err();
    }
    auto restarted = start();
    std::string const base = baseUrl(*restarted);
    ASSERT_EQ(base, "http://127.0.0.1:" + port) << restarted->err();
    std::map<std::string, unsigned> const expected{{"p/whole-" + std::to_string(SIGKILL), unsigned(whole.size())},
                                                   {"p/whole-" + std::to_string(SIGTERM), unsigned(whole.size())},
                                                   {"p/partial-" + std::to_string(SIGKILL), 0},
                                                   {"p/partial-" + std::to_string(SIGTERM), 0}};
    EXPECT_EQ(listed(base), expected);
    EXPECT_TRUE(fs::is_empty(data / "incoming"));
    Reply const found =
        exchange(verb::get, base + "/storage/v1/accounts/1001/project/p/whole-" + std::to_string(SIGKILL), {},
                 bearer(kDefaultToken));
    Reply const link = exchange(verb::get, found.json["url"]["href"].asString(), {}, bearer(kDefaultToken));
    EXPECT_TRUE(exchange(verb::get, link.json["url"].asString()).body == whole);
    restarted.reset();
    fs::remove_all(data);
    fs::remove(settingsFile);
}

} // namespace
} // namespace tavix::emulator
