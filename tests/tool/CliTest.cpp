// The command-line tool run as a subprocess against the in-process emulator: what it prints,
// the exit status and message of each failure class, its progress display on a pipe and on a
// terminal, and the upload queue's commands.
#include <tests/support/ChildProcess.h>
#include <tests/support/Json.h>
#include <tests/support/RawPeer.h>
#include <tests/support/ScopedControllerConfig.h>
#include <tools/emulator/CloudEmulator.h>
#include <tools/emulator/HttpServer.h>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tavix::test {
namespace {

namespace fs = boost::filesystem;

struct Result {
    int status = -1;
    std::string out, err;
};

// Runs the built tool to its end.
Result run(std::vector<std::string> args)
{
    args.insert(args.begin(), RESTCLIENT_TOOL);
    ChildProcess tool(std::move(args));
    int const status = tool.wait();
    return {status, tool.out(), tool.err()};
}

// Runs the tool on a pseudo-terminal; what it wrote there, stdout and stderr together. Once
// `interruptWhen` holds of what it wrote so far, the terminal's Ctrl-C is typed, once.
Result runOnTerminal(std::vector<std::string> args, std::function<bool(std::string const&)> const& interruptWhen = {})
{
    args.insert(args.begin(), RESTCLIENT_TOOL);
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    int master = -1;
    pid_t const pid = forkpty(&master, nullptr, nullptr, nullptr);
    if (pid == 0) {
        execv(argv[0], argv.data());
        _exit(127);
    }
    Result result;
    if (pid < 0) return result;
    bool interrupted = !interruptWhen;
    char buffer[4096];
    for (;;) {
        pollfd output{master, POLLIN, 0};
        if (::poll(&output, 1, 20) > 0) {
            ssize_t const n = read(master, buffer, sizeof buffer);
            if (n <= 0) break;
            result.out.append(buffer, std::size_t(n));
        }
        if (!interrupted && interruptWhen(result.out)) interrupted = write(master, "\x03", 1) == 1;
    }
    close(master);
    int status = 0;
    waitpid(pid, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

class CliTest : public ::testing::Test {
protected:
    ~CliTest() override
    {
        boost::system::error_code ignored;
        fs::remove_all(dir, ignored);
    }

    // With the emulator's token, so that nothing needs to authenticate.
    Result tool(std::vector<std::string> args)
    {
        args.insert(args.begin(), {"--token-file", tokenFile});
        return run(std::move(args));
    }

    void writeFile(std::size_t size)
    {
        std::string bytes(size, '\0');
        std::mt19937 random(7);
        for (char& c : bytes) c = static_cast<char>(random());
        std::ofstream(file.string(), std::ios::binary) << bytes;
    }

    // A file in the test's own folder.
    std::string path(std::string const& name, std::optional<std::string> const& content = std::nullopt) const
    {
        std::string const p = (dir / name).string();
        if (content) std::ofstream(p, std::ios::binary) << *content;
        return p;
    }

    emulator::CloudEmulator cloud;
    ScopedControllerConfig config{cloud.controllerSettings()};
    fs::path const dir = fs::temp_directory_path() / fs::unique_path("cli-%%%%%%");
    bool const made = fs::create_directory(dir);
    fs::path const file = dir / "upload.bin";
    std::string const tokenFile = path("token", std::string(emulator::kDefaultToken) + "\n");
};

TEST_F(CliTest, PrintsWhatTheServicesAnswer)
{
    struct Case {
        std::vector<std::string> args;
        std::string expected;
    } const cases[] = {
        {{"locate", "ACCOUNT"}, cloud.accountUrl()},
        {{"account"}, "storageURL: " + cloud.storageUrl() + "\n"},
        {{"users"}, "owner@example.com"},
        {{"geo"}, "country: Norway\n"},
        {{"register", "--ip", "10.0.0.5", "--port", "5060"}, "ip: 10.0.0.5\n"},
        {{"resources", "search"}, "NAME"},
    };
    for (Case const& c : cases) {
        Result const r = tool(c.args);
        EXPECT_EQ(r.status, 0) << c.args[0] << ": " << r.err;
        EXPECT_NE(r.out.find(c.expected), std::string::npos) << c.args[0] << ": " << r.out;
        EXPECT_EQ(r.err, "") << c.args[0];
    }
    EXPECT_EQ(cloud.registration()["ip"].asString(), "10.0.0.5");
}

TEST_F(CliTest, JsonPrintsTheDecodedDocumentOrTheErrorDocument)
{
    Result const account = tool({"--json", "account"});
    EXPECT_EQ(account.status, 0);
    EXPECT_EQ(json(account.out)["storageURL"].asString(), cloud.storageUrl());

    Result const missing = tool({"locate", "NOPE", "--json"});
    EXPECT_EQ(missing.status, 4);
    Json::Value const error = json(missing.out);
    EXPECT_EQ(error["code"].asUInt(), 404u);
    EXPECT_EQ(error["message"].asString(), "No location for service NOPE");
}

TEST_F(CliTest, EachFailureClassHasItsExitStatusAndMessage)
{
    struct Case {
        char const* what;
        std::function<void()> script;
        std::vector<std::string> args;
        int status;
        std::string message;
    } const cases[] = {
        {"unknown command", {}, {"--token", "t", "frobnicate"}, 2, "frobnicate"},
        {"missing subcommand", {}, {"--token", "t", "resources"}, 2, "subcommand"},
        {"bad URL", {}, {"--token", "t", "--storage-url", "nowhere", "resources", "search"}, 2, "nowhere"},
        {"no answer",
         {},
         {"--token", "t", "--locator-url", "http://127.0.0.1:1/locator/rest", "locate", "ACCOUNT"},
         3,
         "Connection refused"},
        {"error document", {}, {"--token", emulator::kDefaultToken, "locate", "NOPE"}, 4, "status 404, code 404"},
        {"malformed answer",
         [this] {
             cloud.scriptReply({200, R"({"account": "not an object"})", "application/json", "current"});
         },
         {"--token", emulator::kDefaultToken, "account"},
         4,
         "current account: malformed answer"},
        {"upload failure", {}, {"--token", "t", "upload", "/nonexistent/file"}, 5, "error 2: File doesn't exist."},
        // A CA bundle that cannot be read is named, by the request and by the authentication.
        {"CA bundle missing",
         {},
         {"--token", "t", "--ca-file", "/nonexistent/ca.pem", "--locator-url", "https://127.0.0.1:1/locator/rest",
          "locate", "ACCOUNT"},
         3,
         "error 2 (generic): No such file or directory: ca_file /nonexistent/ca.pem"},
        {"CA bundle a directory",
         {},
         {"--ca-file", dir.string(), "--auth-url", "https://127.0.0.1:1/oauth/token", "geo"},
         6,
         "error 21: Is a directory: ca_file " + dir.string()},
        {"refused token",
         [this] {
             cloud.scriptReply({401, R"({"error": "invalid_client"})", "application/json", "oauth/token"});
         },
         {"geo"},
         6,
         "authentication of app key 'restclient-cli' failed: error 401: invalid_client"},
    };
    for (Case const& c : cases) {
        if (c.script) c.script();
        Result const r = run(c.args);
        EXPECT_EQ(r.status, c.status) << c.what << ": " << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << c.what << ": " << r.err;
    }
}

TEST_F(CliTest, TokenShowsTheRecordWithTheTokenMasked)
{
    Result const r = run({"--json", "token", "device-key"});
    ASSERT_EQ(r.status, 0) << r.err;
    Json::Value const record = json(r.out);
    std::string const masked = record["token"].asString();
    ASSERT_GT(masked.size(), 9u);
    EXPECT_EQ(masked.find('*'), 9u);
    EXPECT_EQ(masked.find_first_not_of('*', 9), std::string::npos);
    EXPECT_EQ(record["tokenType"].asString(), "Bearer");
    EXPECT_FALSE(record["expires"].asString().empty());
}

// The whole chain without --token: the uploader authenticates, locates, stores and sends.
TEST_F(CliTest, UploadsThroughTheUploaderWithPlainProgressLines)
{
    writeFile(3 * 1024 * 1024);
    // The first request waits, so the plain lines come while the chain runs.
    cloud.delayNext(std::chrono::milliseconds(300));
    Result const r =
        run({"upload", file.string(), "--type", "log", "--meta", "origin=test", "--progress-interval", "0.05"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("mediaLocation: " + cloud.storageUrl() + "/media\n"), std::string::npos) << r.out;
    EXPECT_EQ(r.err.find('\r'), std::string::npos);
    EXPECT_GE(std::count(r.err.begin(), r.err.end(), '\n'), 3) << r.err;
    EXPECT_NE(r.err.find("upload: authenticating\n"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("upload: 100% 3145728 of 3145728 bytes"), std::string::npos) << r.err;

    auto const objects = cloud.objects();
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(objects[0].type, "log");
    EXPECT_EQ(objects[0].contentLength, 3145728u);
}

TEST_F(CliTest, DrawsAProgressBarOnATerminal)
{
    writeFile(1024 * 1024);
    Result const r = runOnTerminal({"--token", emulator::kDefaultToken, "upload", file.string()});
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("\rupload [" + std::string(30, '#') + "] 100% 1.0 MiB of 1.0 MiB"), std::string::npos)
        << r.out;
}

TEST_F(CliTest, TokenFromAFileOrTheEnvironmentAndAWarningForOneOnTheCommandLine)
{
    Result const fromFile = tool({"geo"});
    EXPECT_EQ(fromFile.status, 0) << fromFile.err;
    EXPECT_EQ(fromFile.err, "");

    Result const given = run({"--token", emulator::kDefaultToken, "geo"});
    EXPECT_EQ(given.status, 0) << given.err;
    EXPECT_NE(given.err.find("warning: --token is visible to every local user"), std::string::npos) << given.err;
    EXPECT_EQ(given.err.find(emulator::kDefaultToken), std::string::npos);

    ::setenv("RESTCLIENT_TOKEN", emulator::kDefaultToken, 1);
    Result const fromEnvironment = run({"geo"});
    ::unsetenv("RESTCLIENT_TOKEN");
    EXPECT_EQ(fromEnvironment.status, 0) << fromEnvironment.err;
    EXPECT_EQ(cloud.tokenRequests(), 0u);

    Result const empty = run({"--token-file", path("empty", ""), "geo"});
    EXPECT_EQ(empty.status, 2);
    EXPECT_NE(empty.err.find("holds no token"), std::string::npos) << empty.err;
}

// What a download must not do: speak another scheme, replace a file, follow a link, wait for ever.
TEST_F(CliTest, DownloadRefusesWhatItMustNotTouchAndEndsWhenTheServerIsSilent)
{
    RawPeer silent("", RawPeer::After::hold);
    std::string const silentUrl = "http://127.0.0.1:" + std::to_string(silent.port()) + "/object";
    std::string const kept = path("kept", "keep me");
    std::string const linked = path("linked");
    fs::create_symlink(kept, linked + ".part");
    struct Case {
        char const* what;
        std::vector<std::string> args;
        int status;
        std::string message;
    } const cases[] = {
        {"file scheme", {"download", "file://" + kept, path("a")}, 2, "only http and https URLs are fetched, not file"},
        {"upper-case file scheme", {"download", "FILE://" + kept, path("b")}, 2, "not file"},
        {"dict scheme", {"download", "dict://127.0.0.1:1/x", path("c")}, 2, "not dict"},
        {"existing target", {"download", silentUrl, kept}, 1, "exists; --force replaces it"},
        {"symlinked .part", {"download", silentUrl, linked}, 1, "cannot create " + linked + ".part: it exists"},
        {"silent server", {"download", "--stall-timeout", "1", silentUrl, path("d")}, 3, "Timeout was reached"},
    };
    for (Case const& c : cases) {
        auto const start = std::chrono::steady_clock::now();
        Result const r = tool(c.args);
        EXPECT_EQ(r.status, c.status) << c.what << ": " << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << c.what << ": " << r.err;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10)) << c.what;
    }
    EXPECT_EQ(fileText(kept), "keep me");
    EXPECT_TRUE(fs::is_symlink(linked + ".part"));
    for (char const* name : {"a", "b", "c", "d", "d.part"}) EXPECT_FALSE(fs::exists(path(name))) << name;
}

TEST_F(CliTest, DownloadReplacesAFileOnlyWithForce)
{
    emulator::HttpServer server([](emulator::Request const&) {
        emulator::Response response{boost::beast::http::status::ok, 11};
        response.body() = "the body";
        response.prepare_payload();
        return response;
    });
    std::string const target = path("target", "old");
    Result const r = tool({"download", "--force", "HTTP://127.0.0.1:" + std::to_string(server.port()) + "/o", target});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(fileText(target), "the body");
    EXPECT_FALSE(fs::exists(target + ".part"));
}

// Ctrl-C on the terminal while the body moves: the transfer stops, nothing partial stays.
TEST_F(CliTest, CtrlCInterruptsADownloadAndAnUpload)
{
    RawPeer trickle([](RawPeer::Connection& connection, int) {
        if (connection.readHead().empty()) return;
        connection.send("HTTP/1.1 200 OK\r\nContent-Length: 1000000\r\n\r\n" + std::string(1000, 'x'));
        connection.waitUntilClosed();
    });
    std::string const target = path("interrupted");
    Result const download =
        runOnTerminal({"--token-file", tokenFile, "download", "--stall-timeout", "5",
                       "http://127.0.0.1:" + std::to_string(trickle.port()) + "/o", target},
                      [](std::string const& shown) { return shown.find("1000 B of") != std::string::npos; });
    EXPECT_EQ(download.status, 130) << download.out;
    EXPECT_NE(download.out.find("interrupted (SIGINT)"), std::string::npos) << download.out;
    EXPECT_FALSE(fs::exists(target + ".part"));
    EXPECT_FALSE(fs::exists(target));

    RawPeer held([](RawPeer::Connection& connection, int) {
        if (!connection.readHead().empty()) connection.waitUntilClosed();
    });
    Json::Value store;
    store["url"] = "http://127.0.0.1:" + std::to_string(held.port()) + "/blob";
    cloud.scriptReply({200, store.toStyledString(), "application/json", "/files"});
    writeFile(4 * 1024 * 1024);
    auto const start = std::chrono::steady_clock::now();
    Result const upload = runOnTerminal({"--token-file", tokenFile, "upload", "--stall-timeout", "5", file.string()},
                                        [&](std::string const&) { return held.connections() > 0; });
    EXPECT_EQ(upload.status, 130) << upload.out;
    EXPECT_NE(upload.out.find("upload of " + file.string() + " interrupted"), std::string::npos) << upload.out;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_TRUE(cloud.objects().empty() || cloud.objects()[0].contentLength == 0);
}

class CliQueueTest : public CliTest {
protected:
    Result queue(std::vector<std::string> args)
    {
        args.insert(args.begin(), "queue");
        args.insert(args.end(), {"--spool", spool});
        return tool(std::move(args));
    }

    // The id `queue add` printed.
    std::int64_t add(std::vector<std::string> args)
    {
        args.insert(args.begin(), "add");
        Result const r = queue(std::move(args));
        EXPECT_EQ(r.status, 0) << r.err;
        return std::atoll(r.out.c_str());
    }

    std::string const spool = (dir / "spool").string();
};

TEST_F(CliQueueTest, AddListAndStatsAgreeAndTheSettingsNameTheSpool)
{
    std::int64_t const copied = add({path("a.log", "first"), "--type", "log", "--meta", "origin=test"});
    std::int64_t const referenced = add({path("b.bin", "second!"), "--name", "named.bin", "--hold", "reference"});
    EXPECT_GT(copied, 0);
    EXPECT_NE(copied, referenced);

    Result const listed = queue({"list", "--json"});
    ASSERT_EQ(listed.status, 0) << listed.err;
    Json::Value const entries = json(listed.out);
    ASSERT_EQ(entries.size(), 2u) << listed.out;
    Json::Value const& a = entries[0]["id"].asInt64() == copied ? entries[0] : entries[1];
    Json::Value const& b = entries[0]["id"].asInt64() == copied ? entries[1] : entries[0];
    EXPECT_EQ(a["name"].asString(), "a.log");
    EXPECT_EQ(a["type"].asString(), "log");
    EXPECT_EQ(a["metadata"]["origin"].asString(), "test");
    EXPECT_EQ(a["hold"].asString(), "copy");
    EXPECT_EQ(a["state"].asString(), "pending");
    EXPECT_EQ(a["size"].asInt64(), 5);
    EXPECT_EQ(b["name"].asString(), "named.bin");
    EXPECT_EQ(b["type"].asString(), "project");
    EXPECT_EQ(b["hold"].asString(), "reference");
    EXPECT_EQ(b["size"].asInt64(), 7);

    EXPECT_EQ(json(queue({"list", "--state", "failed", "--json"}).out).size(), 0u);
    Result const table = queue({"list"});
    EXPECT_NE(table.out.find("NEXT ATTEMPT"), std::string::npos) << table.out;
    EXPECT_NE(table.out.find("named.bin"), std::string::npos) << table.out;

    // The spool from the settings when no --spool is given; neither: a usage error.
    config.write(cloud.controllerSettings() + "\nqueue_spool = " + spool + "\n");
    Result const stats = tool({"--json", "queue", "stats"});
    ASSERT_EQ(stats.status, 0) << stats.err;
    EXPECT_EQ(json(stats.out)["pending"].asUInt(), 2u);
    EXPECT_EQ(json(stats.out)["delivered"].asUInt(), 0u);
    config.write(cloud.controllerSettings());
    Result const none = tool({"queue", "stats"});
    EXPECT_EQ(none.status, 2);
    EXPECT_NE(none.err.find("no spool"), std::string::npos) << none.err;
}

TEST_F(CliQueueTest, RunOnceDeliversEveryEntryToTheStorageService)
{
    std::string const small = path("small.bin", std::string(1000, 's'));
    writeFile(300 * 1024);
    std::int64_t const first = add({small});
    std::int64_t const second = add({file.string(), "--type", "log"});
    Result const r = queue({"run", "--once", "--rate", "4M", "--concurrency", "1"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("delivered " + std::to_string(first) + " small.bin (1000 bytes)"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("delivered " + std::to_string(second) + " upload.bin"), std::string::npos) << r.out;

    auto objects = cloud.objects();
    ASSERT_EQ(objects.size(), 2u);
    std::sort(objects.begin(), objects.end(), [](auto const& x, auto const& y) { return x.name < y.name; });
    EXPECT_EQ(objects[0].name, "small.bin");
    EXPECT_EQ(objects[0].contentLength, 1000u);
    EXPECT_EQ(objects[1].type, "log");
    EXPECT_EQ(objects[1].contentLength, 300u * 1024);
    Json::Value const stats = json(queue({"stats", "--json"}).out);
    EXPECT_EQ(stats["delivered"].asUInt(), 2u);
    EXPECT_EQ(stats["pending"].asUInt(), 0u);
}

// A referenced file that changed fails for good; --follow ends cleanly on SIGTERM.
TEST_F(CliQueueTest, AFailureForGoodFailsRunOnceAndRetryOrDropBringsItBack)
{
    std::string const held = path("held.bin", "as it was");
    std::int64_t const id = add({held, "--hold", "reference"});
    path("held.bin", "changed since");
    Result const once = queue({"run", "--once"});
    EXPECT_EQ(once.status, 5) << once.err;
    EXPECT_NE(once.out.find("failed " + std::to_string(id) + " held.bin: error"), std::string::npos) << once.out;
    EXPECT_NE(once.err.find("entries failed for good: 1"), std::string::npos) << once.err;
    EXPECT_EQ(json(queue({"list", "--state", "failed", "--json"}).out).size(), 1u);

    EXPECT_EQ(queue({"retry", "--failed"}).status, 0);
    EXPECT_EQ(json(queue({"list", "--state", "pending", "--json"}).out).size(), 1u);
    EXPECT_EQ(queue({"drop", std::to_string(id)}).status, 0);
    EXPECT_EQ(json(queue({"stats", "--json"}).out)["dropped"].asUInt(), 1u);

    add({path("late.bin", "sent while following")});
    ChildProcess follow({RESTCLIENT_TOOL, "--token-file", tokenFile, "queue", "run", "--follow", "--spool", spool});
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (follow.out().find("delivered") == std::string::npos && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(follow.stop(), 0) << follow.err();
    EXPECT_NE(follow.out().find("delivered"), std::string::npos) << follow.out();
    EXPECT_EQ(cloud.objects().size(), 1u);
    EXPECT_NE(follow.err().find("stopped by SIGTERM"), std::string::npos) << follow.err();
}

TEST_F(CliQueueTest, UnknownEntriesAndBadValuesAreUsageErrors)
{
    struct Case {
        char const* what;
        std::vector<std::string> args;
        std::string message;
        bool queueError; // said on one line
    } const cases[] = {
        {"retry of an unknown id", {"retry", "999"}, "queue retry 999: ", true},
        {"drop of an unknown id", {"drop", "999"}, "queue drop 999: ", true},
        {"retry of nothing", {"retry"}, "give an entry's ID or --failed", false},
        {"bad hold mode", {"add", path("x", "x"), "--hold", "borrow"}, "--hold", false},
        {"bad rate", {"run", "--once", "--rate", "fast"}, "--rate 'fast' (queue_rate)", false},
    };
    for (Case const& c : cases) {
        Result const r = queue(c.args);
        EXPECT_EQ(r.status, 2) << c.what << ": " << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << c.what << ": " << r.err;
        if (c.queueError) {
            EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << c.what << ": " << r.err;
        }
    }
    EXPECT_TRUE(cloud.objects().empty());
}

} // namespace
} // namespace tavix::test
