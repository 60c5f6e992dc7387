// restclient-emulator run as a device's developer would: its own certificates, the settings
// file a device reads, and its data kept across a restart.
#include <platform/controller/Settings.h>
#include <tests/emulator/EmulatorCalls.h>
#include <tests/support/ScopedControllerConfig.h>

#include <boost/filesystem.hpp>

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <spawn.h>
#include <sys/wait.h>

extern char** environ;

namespace tavix::emulator {
namespace {

using namespace calls;
using boost::beast::http::verb;
namespace fs = boost::filesystem;

std::string slurp(fs::path const& file)
{
    std::ostringstream text;
    text << std::ifstream(file.string()).rdbuf();
    return text.str();
}

// The program, built next to the tests: <build>/tests/<test> and <build>/tools/restclient-emulator.
class Program {
public:
    explicit Program(std::vector<std::string> args) : m_out(fs::temp_directory_path() / fs::unique_path("emu-out-%%%%%%"))
    {
        args.insert(args.begin(), (fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "tools" /
                                   "restclient-emulator").string());
        std::vector<char*> argv;
        for (std::string& arg : args)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, m_out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(&actions, 2, m_out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        EXPECT_EQ(posix_spawn(&m_pid, argv[0], &actions, nullptr, argv.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
    }
    ~Program()
    {
        stop();
        fs::remove(m_out);
    }

    std::string output() const { return slurp(m_out); }
    // The base URL once it listens ("" if it exits or does not listen within the bound).
    std::string baseUrl()
    {
        std::string url;
        eventually([&] {
            std::string const text = output();
            auto const at = text.find("listening on ");
            auto const end = text.find('\n', at);
            if (at != std::string::npos && end != std::string::npos)
                url = text.substr(at + 13, end - at - 13);
            return !url.empty() || exited();
        });
        return url;
    }
    // Its exit status after SIGTERM.
    int stop()
    {
        if (m_pid > 0)
            ::kill(m_pid, SIGTERM);
        return wait();
    }
    int wait()
    {
        if (m_pid > 0 && waitpid(m_pid, &m_status, 0) == m_pid)
            m_pid = 0;
        return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : 128 + WTERMSIG(m_status);
    }

private:
    bool exited()
    {
        if (m_pid > 0 && waitpid(m_pid, &m_status, WNOHANG) == m_pid)
            m_pid = 0;
        return m_pid == 0;
    }

    fs::path m_out;
    pid_t m_pid = 0;
    int m_status = 0;
};

TEST(EmulatorProgram, MakesItsCertificatesWritesTheDeviceSettingsAndKeepsItsDataAcrossRestarts)
{
    fs::path const data = fs::temp_directory_path() / fs::unique_path("emu-data-%%%%%%");
    fs::path const settingsFile = data.string() + ".conf";
    std::vector<std::string> const args = {"--make-certs", "--require-client-cert", "--data-dir", data.string(),
                                           "--write-settings", settingsFile.string()};
    std::string ca, objectsBefore;
    {
        Program program(args);
        std::string const base = program.baseUrl();
        ASSERT_EQ(base.rfind("https://127.0.0.1:", 0), 0u) << program.output();
        boost::system::error_code ec;
        std::string const text = slurp(settingsFile);
        controller::Settings const settings = controller::Settings::parse(text, ec);
        ASSERT_FALSE(ec) << text;
        EXPECT_EQ(settings.locatorUrl, base + "/locator/rest");
        EXPECT_EQ(settings.authUrl, base + "/oauth/token");
        EXPECT_EQ(settings.caFile, (data / "certs" / "ca.pem").string());
        EXPECT_EQ(settings.clientCertFile, (data / "certs" / "client.pem").string());
        ca = slurp(settings.caFile);

        testing::ScopedControllerConfig device(text);
        Reply const token = exchange(verb::post, settings.authUrl, "grant_type=client_credentials&client_id=dev",
                                     {{"Content-Type", "application/x-www-form-urlencoded"}});
        ASSERT_EQ(token.status, 200u) << token.body;
        Reply const stored = exchange(verb::post, base + "/storage/v1/accounts/1001/files", R"({"resource": {"name": "p/kept"}})",
                                      {{"Authorization", "Bearer " + token.json["access_token"].asString()},
                                       {"Content-Type", "application/json"}});
        ASSERT_EQ(stored.status, 200u) << stored.body;
        EXPECT_EQ(exchange(verb::put, stored.json["url"].asString(), "kept bytes", {{"Content-Type", "binary/octet-stream"}}).status,
                  200u);
        device.write("ca_file = " + settings.caFile + "\n");
        EXPECT_EQ(exchange(verb::get, settings.locatorUrl + "/locations").status, 0u) << "a client certificate is required";
        EXPECT_EQ(program.stop(), 0);
    }
    {
        Program restarted(args);
        std::string const base = restarted.baseUrl();
        ASSERT_FALSE(base.empty()) << restarted.output();
        EXPECT_EQ(slurp(data / "certs" / "ca.pem"), ca) << "devices keep trusting its CA";
        testing::ScopedControllerConfig device(slurp(settingsFile));
        Reply const objects = exchange(verb::get, base + "/storage/v1/accounts", {}, bearer(kDefaultToken));
        ASSERT_EQ(objects.json["resource"].size(), 1u) << objects.body;
        EXPECT_EQ(objects.json["resource"][0]["contentLength"], 10);
    }
    Program refused({"--require-client-cert"});
    EXPECT_EQ(refused.wait(), 2);
    EXPECT_NE(refused.output().find("--require-client-cert needs"), std::string::npos) << refused.output();
    fs::remove_all(data);
    fs::remove(settingsFile);
}

} // namespace
} // namespace tavix::emulator
