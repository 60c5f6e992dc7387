#include <tavix/net/http/HttpClient.h>

#include <tests/support/Loopback.h>
#include <tests/support/ScopedControllerConfig.h>
#include <tests/support/TestCerts.h>
#include <tools/emulator/HttpServer.h>

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include <gtest/gtest.h>

#include <thread>

#include <fcntl.h>
#include <sys/stat.h>

namespace tavix::net::http {
namespace {

using emulator::Fault;
using test::ScopedControllerConfig;
namespace fs = boost::filesystem;
using namespace std::chrono_literals;

using Outcome = test::HttpCompletion;

// Client objects made afresh for every request, as the library's clients are, against one
// server that counts what they cost it.
class ConnectionPoolTest : public ::testing::TestWithParam<bool> {
protected:
    ConnectionPoolTest()
        : server(
            [](emulator::Request const& request) {
                emulator::Response response{boost::beast::http::status::ok, 11};
                response.body() = "echo:" + request.body();
                response.prepare_payload();
                return response;
            },
            tls() ? std::optional(test::certs::trustedServer()) : std::nullopt)
    {
        fs::copy_file(test::certs::ca(), caCopy, fs::copy_options::overwrite_existing);
    }

    ~ConnectionPoolTest() override
    {
        HttpClient::setPoolLimits({});
        fs::remove(caCopy);
    }

    bool tls() const { return GetParam(); }
    std::string url() const { return server.baseUrl() + "/echo"; }

    // Starts one request on a new client object; the outcome is filled in by the completion.
    std::shared_ptr<HttpClient> start(boost::asio::io_context& context, Outcome& outcome,
                                      boost::beast::http::verb method = boost::beast::http::verb::get)
    {
        auto client = std::make_shared<HttpClient>(context, outcome.callback());
        HttpRequest request;
        boost::system::error_code ec;
        request.url(Url::createUrl(url(), ec));
        request.method(method);
        if (method == boost::beast::http::verb::post) request.payload("{}");
        EXPECT_FALSE(client->asyncRequest(request));
        return client;
    }

    Outcome request(boost::beast::http::verb method = boost::beast::http::verb::get)
    {
        Outcome outcome;
        auto client = start(io, outcome, method);
        EXPECT_TRUE(test::runUntil(
            io, [&] { return outcome.calls > 0; }, 10s));
        client->close(true); // as the REST engine does in every completion
        test::runUntilIdle(io);
        EXPECT_EQ(outcome.calls, 1);
        return outcome;
    }

    void expectOk(Outcome const& outcome)
    {
        EXPECT_TRUE(!outcome.ec && outcome.response.status() == 200) << outcome.ec.message();
    }

    emulator::ConnectionCounts counts() const { return server.connectionCounts(); }

    std::string const caCopy = (fs::temp_directory_path() / fs::unique_path("pool-ca-%%%%%%.pem")).string();
    ScopedControllerConfig config{"ca_file = " + caCopy + "\n"};
    boost::asio::io_context io;
    emulator::HttpServer server;
};

TEST_P(ConnectionPoolTest, FreshClientObjectsShareOneConnection)
{
    for (int i = 0; i < 5; ++i) expectOk(request());
    EXPECT_EQ(server.requests().size(), 5u);
    EXPECT_EQ(counts().connections, 1u);
    EXPECT_EQ(counts().fullHandshakes, tls() ? 1u : 0u);
    EXPECT_FALSE(server.lastRequest()->header("Connection"));
}

TEST_P(ConnectionPoolTest, ReuseTurnedOffClosesEveryConnectionButResumesTheSession)
{
    config.write("ca_file = " + caCopy + "\nconnection_reuse = false\n");
    for (int i = 0; i < 3; ++i) expectOk(request());
    EXPECT_EQ(counts().connections, 3u);
    EXPECT_EQ(server.lastRequest()->header("Connection"), "close");
    if (tls()) {
        EXPECT_EQ(counts().fullHandshakes, 1u);
        EXPECT_EQ(counts().resumedHandshakes, 2u);
    }
}

// Nobody tells the process: the replaced bundle is noticed by the once-a-second look.
TEST_P(ConnectionPoolTest, ChangedTlsSettingsTakeEffectWithinASecond)
{
    expectOk(request());
    // The CA bundle replaced as `rsync -t` does: same contents and time stamp, a new file.
    std::string const next = caCopy + ".next";
    fs::copy_file(test::certs::ca(), next, fs::copy_options::overwrite_existing);
    struct stat old {};
    ASSERT_EQ(::stat(caCopy.c_str(), &old), 0);
    timespec const times[2] = {old.st_atim, old.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, next.c_str(), times, 0), 0);
    fs::rename(next, caCopy);
    std::this_thread::sleep_for(1100ms);
    expectOk(request());
    // Plain http has no TLS settings to change: the connection is still the one.
    EXPECT_EQ(counts().connections, tls() ? 2u : 1u);
    if (tls()) {
        EXPECT_EQ(counts().fullHandshakes, 2u); // no session resumed across settings either
    }
}

TEST_P(ConnectionPoolTest, ConnectionTheServerClosedWhileIdleIsNotUsed)
{
    server.setIdleTimeout(20ms);
    expectOk(request());
    ASSERT_TRUE(test::runUntil(
        io, [&] { return counts().closed == 1; }, 5s));
    expectOk(request(boost::beast::http::verb::post));
    EXPECT_EQ(server.requests().size(), 2u);
    EXPECT_EQ(counts().connections, 2u);
    if (tls()) {
        EXPECT_EQ(counts().resumedHandshakes, 1u);
    }
}

// The server drops a reused connection on the request, before answering: a GET is sent again on
// a new connection, a POST is not (the server may have acted on it).
TEST_P(ConnectionPoolTest, OnlyIdempotentRequestsAreRetriedAfterAReusedConnectionFails)
{
    expectOk(request());
    server.pushFault(Fault::dropConnection());
    expectOk(request());
    EXPECT_EQ(server.requests().size(), 3u);

    server.pushFault(Fault::dropConnection());
    Outcome const post = request(boost::beast::http::verb::post);
    EXPECT_TRUE(post.ec);
    EXPECT_EQ(server.requests().size(), 4u);
    EXPECT_EQ(server.requests().back().method, "POST");
    EXPECT_EQ(counts().connections, 2u);
}

TEST_P(ConnectionPoolTest, IdleTimeOutAndLimitsBoundThePool)
{
    HttpClient::setPoolLimits({2, 16, 50ms});
    // Four at once: four connections, of which two stay idle.
    auto const burst = [&] {
        Outcome outcomes[4];
        std::vector<std::shared_ptr<HttpClient>> clients;
        for (auto& outcome : outcomes) clients.push_back(start(io, outcome));
        test::runUntilIdle(io);
        for (auto& outcome : outcomes) expectOk(outcome);
    };
    burst();
    EXPECT_EQ(counts().connections, 4u);
    burst();
    EXPECT_EQ(counts().connections, 6u);

    std::this_thread::sleep_for(60ms); // let the idle time-out pass
    expectOk(request());
    EXPECT_EQ(counts().connections, 7u);

    HttpClient::setPoolLimits({4, 0, 50ms}); // nothing more may be kept in all
    expectOk(request());                     // on the one kept before, which is then closed
    expectOk(request());
    EXPECT_EQ(counts().connections, 8u);
}

// Several threads, each with its own io_context, share the process-wide limits; each context's
// idle connections go with it.
TEST_P(ConnectionPoolTest, ThreadsWithTheirOwnContexts)
{
    std::vector<std::thread> threads;
    std::atomic<int> succeeded{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            boost::asio::io_context own;
            for (int i = 0; i < 10; ++i) {
                Outcome outcome;
                auto client = start(own, outcome);
                own.run();
                own.restart();
                if (!outcome.ec && outcome.response.status() == 200) ++succeeded;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(succeeded, 40);
    EXPECT_LE(counts().connections, 8u); // each thread reuses its own
}

INSTANTIATE_TEST_SUITE_P(HttpAndHttps, ConnectionPoolTest, ::testing::Bool(),
                         [](auto const& info) { return info.param ? "https" : "http"; });

} // namespace
} // namespace tavix::net::http
