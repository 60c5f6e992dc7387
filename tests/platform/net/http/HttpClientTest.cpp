#include <tavix/net/http/HttpClient.h>

#include <tavix/controller/Settings.h>
#include <tavix/net/http/TlsFiles.h>
#include <tests/support/IssuedCertificate.h>
#include <tests/support/Loopback.h>
#include <tests/support/RawPeer.h>
#include <tests/support/ScopedControllerConfig.h>
#include <tests/support/TestCerts.h>
#include <tools/emulator/HttpServer.h>

#include <boost/asio/ssl/error.hpp>
#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include <thread>

#include <unistd.h>

namespace tavix::net::http {
namespace {

using emulator::Fault;
using test::ScopedControllerConfig;
namespace beast = boost::beast;
using namespace std::chrono_literals;

using Outcome = test::HttpCompletion;

class HttpClientTest : public ::testing::Test {
protected:
    explicit HttpClientTest(std::optional<emulator::TlsFiles> tls = std::nullopt)
        : server(
            [](emulator::Request const& request) {
                emulator::Response response{beast::http::status::ok, 11};
                response.set("X-Reply", "yes");
                response.body() = "echo:" + request.body();
                response.prepare_payload();
                return response;
            },
            tls)
    {}

    static HttpRequest request(std::string const& url, std::string const& payload = {})
    {
        HttpRequest request;
        boost::system::error_code ec;
        request.url(Url::createUrl(url, ec));
        request.payload(payload);
        return request;
    }

    // Without options the client takes the process-wide defaults.
    std::unique_ptr<HttpClient> client(Outcome& outcome, std::optional<ClientOptions> const& options = ClientOptions())
    {
        HttpClient::Completion done = [record = outcome.callback(), this](HttpResponse const& response,
                                                                          boost::system::error_code const& ec) {
            record(response, ec);
            m_completedDuringStart = m_completedDuringStart || m_starting;
        };
        return options ? std::make_unique<HttpClient>(io, done, *options) : std::make_unique<HttpClient>(io, done);
    }

    // One exchange run to its end, then whatever the context still holds (a second completion would show).
    Outcome exchange(HttpRequest const& request, std::optional<ClientOptions> const& options = ClientOptions())
    {
        Outcome outcome;
        auto http = client(outcome, options);
        m_starting = true;
        boost::system::error_code const started = http->asyncRequest(request);
        m_starting = false;
        EXPECT_FALSE(started) << started.message();
        if (!started) {
            EXPECT_TRUE(test::runUntil(
                io, [&] { return outcome.calls > 0; }, 10s));
            http->close(true);
            test::runUntilIdle(io);
        }
        EXPECT_EQ(outcome.calls, 1);
        EXPECT_EQ(outcome.thread, std::this_thread::get_id());
        EXPECT_FALSE(m_completedDuringStart);
        return outcome;
    }

    Outcome get(std::optional<ClientOptions> const& options = ClientOptions())
    {
        return exchange(request(server.baseUrl() + "/"), options);
    }

    emulator::HttpServer server;
    boost::asio::io_context io;
    bool m_starting = false;
    bool m_completedDuringStart = false;
};

TEST_F(HttpClientTest, SendsTheRequestAsGivenAndPassesTheAnswerThrough)
{
    HttpRequest put = request(server.baseUrl() + "//v1//things/7?q=a//b", R"({"a":1})");
    put.method(beast::http::verb::put);
    Outcome const outcome = exchange(put);
    EXPECT_FALSE(outcome.ec);
    EXPECT_EQ(outcome.response.status(), 200u);
    EXPECT_EQ(outcome.response.payload(), R"(echo:{"a":1})");
    EXPECT_EQ(outcome.response.fields()["X-Reply"], "yes");
    auto const seen = server.lastRequest();
    ASSERT_TRUE(seen);
    EXPECT_EQ(seen->requestLine, "PUT //v1//things/7?q=a//b HTTP/1.1");
}

TEST_F(HttpClientTest, RequestsThatCannotStartReturnAnErrorAndCompleteWithIt)
{
    Outcome outcome;
    auto http = client(outcome);
    EXPECT_TRUE(http->asyncRequest(HttpRequest()));
    EXPECT_TRUE(http->asyncRequest(request("ftp://127.0.0.1/file")));
    {
        ScopedControllerConfig config("no equals sign here\n");
        EXPECT_EQ(http->asyncRequest(request("https://127.0.0.1:1/")), controller::SettingsError::malformedLine);
        config.write("ca_file = /nonexistent/ca.pem\n");
        EXPECT_TRUE(http->asyncRequest(request("https://127.0.0.1:1/")));
    }
    test::runUntilIdle(io);
    EXPECT_EQ(outcome.calls, 4);
    EXPECT_TRUE(outcome.ec);
}

TEST_F(HttpClientTest, AHeaderFieldThatWouldWriteLinesOfItsOwnRefusesTheRequest)
{
    for (auto const& [name, value] : std::vector<std::pair<std::string, std::string>>{
             {"X-Token", "abc\nX-Injected: yes"},
             {"X-Token", "abc\rX-Injected: yes"},
             {"X-Token", std::string("abc\0def", 7)},
             {"X-Injected: yes\r\nX-Token", "abc"},
         }) {
        HttpRequest refused = request(server.baseUrl() + "/");
        refused.setField(name, value);
        refused.setField("Accept", "application/json"); // a later good field does not clear the mark
        Outcome outcome;
        auto http = client(outcome);
        EXPECT_EQ(http->asyncRequest(refused), boost::system::errc::invalid_argument) << name << ": " << value;
        test::runUntilIdle(io);
        EXPECT_EQ(outcome.calls, 1);
        EXPECT_EQ(outcome.ec, boost::system::errc::invalid_argument);
    }
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(HttpClientTest, ABodyUpToTheLimitIsRead)
{
    ClientOptions small;
    small.maxBodySize = 16;
    EXPECT_FALSE(get(small).ec); // "echo:" fits
}

TEST_F(HttpClientTest, StartsFromAnyThreadAndCompletesOnTheIoThreadEvenAfterTheClientIsGone)
{
    server.pushFault(Fault::delayBy(100ms));
    Outcome outcome;
    auto http = client(outcome);
    boost::system::error_code started;
    std::thread([&] { started = http->asyncRequest(request(server.baseUrl() + "/")); }).join();
    ASSERT_FALSE(started);
    http.reset();
    EXPECT_TRUE(test::runUntil(
        io, [&] { return outcome.calls > 0; }, 10s));
    test::runUntilIdle(io);
    EXPECT_EQ(outcome.calls, 1);
    EXPECT_EQ(outcome.thread, std::this_thread::get_id());
    EXPECT_EQ(outcome.response.status(), 200u);
}

TEST_F(HttpClientTest, ClosingMidExchangeEndsItWithAnError)
{
    for (bool force : {true, false}) {
        server.pushFault(Fault::neverAnswer());
        Outcome outcome;
        auto http = client(outcome);
        ASSERT_FALSE(http->asyncRequest(request(server.baseUrl() + "/")));
        EXPECT_TRUE(test::runUntil(
            io, [&] { return server.requests().size() > 0; }, 10s));
        http->close(force);
        EXPECT_TRUE(test::runUntil(
            io, [&] { return outcome.calls > 0; }, 10s))
            << force;
        EXPECT_TRUE(outcome.ec) << force;
        server.clearRequests();
    }
}

class HttpClientTlsTest : public HttpClientTest {
protected:
    HttpClientTlsTest() : HttpClientTest(serverFiles()) {}

    static emulator::TlsFiles serverFiles()
    {
        emulator::TlsFiles files = test::certs::trustedServer();
        files.clientCa = test::certs::ca();
        return files;
    }

    std::string const localhost = "https://localhost:" + std::to_string(server.port()) + "/";
    ScopedControllerConfig config{"ca_file = " + test::certs::ca() + "\n"};
};

// The handshake is part of connecting: a peer that takes the connection and never answers the
// TLS hello is given up at the connect time-out, long before the exchange's.
TEST_F(HttpClientTlsTest, AHandshakeNeverAnsweredEndsAtTheConnectTimeOut)
{
    test::RawPeer silent("", test::RawPeer::After::hold);
    auto const start = std::chrono::steady_clock::now();
    Outcome const outcome =
        exchange(request("https://127.0.0.1:" + std::to_string(silent.port()) + "/"), ClientOptions{300ms, 10s});
    EXPECT_EQ(outcome.ec, beast::error::timeout) << outcome.ec.message();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    EXPECT_EQ(silent.connections(), 1);
}

TEST_F(HttpClientTlsTest, OnlyTheConfiguredCaIsTrustedAndTheClientCertificateIsPresented)
{
    for (std::string const& url : {server.baseUrl() + "/", localhost}) {
        Outcome const outcome = exchange(request(url, "x"));
        EXPECT_FALSE(outcome.ec) << url << ": " << outcome.ec.message();
        EXPECT_EQ(outcome.response.payload(), "echo:x") << url;
    }
    auto seen = server.lastRequest();
    ASSERT_TRUE(seen);
    EXPECT_EQ(seen->header("Host"), "localhost:" + std::to_string(server.port()));
    EXPECT_EQ(seen->clientCommonName, "");

    config.write("ca_file = " + test::certs::ca() + "\nclient_cert_file = " + test::certs::client() + "\n");
    EXPECT_FALSE(get().ec);
    seen = server.lastRequest();
    ASSERT_TRUE(seen);
    EXPECT_EQ(seen->clientCommonName, "restclient test client");

    server.clearRequests();
    config.write(""); // the system's CAs know nothing of the test CA
    Outcome const untrusted = get();
    EXPECT_TRUE(untrusted.ec);
    EXPECT_EQ(untrusted.response.status(), 0u);
    EXPECT_TRUE(server.requests().empty());
}

// OpenSSL would tell a missing or unreadable file only as "asio.ssl error": the file is checked
// first, its errno returned and nothing sent.
TEST_F(HttpClientTlsTest, ATlsFileThatCannotBeReadIsToldByItsErrnoAndNothingIsSent)
{
    auto const dir = boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("tls-files-%%%%");
    boost::filesystem::create_directories(dir);
    std::string const missing = (dir / "missing.pem").string(), noAccess = (dir / "no-access.pem").string();
    boost::filesystem::copy_file(test::certs::ca(), noAccess);
    boost::filesystem::permissions(noAccess, boost::filesystem::no_perms);
    struct Case {
        std::string settings;
        boost::system::errc::errc_t error;
        std::string which;
    } cases[] = {
        {"ca_file = " + missing, boost::system::errc::no_such_file_or_directory, "ca_file " + missing},
        {"ca_file = " + dir.string(), boost::system::errc::is_a_directory, "ca_file " + dir.string()},
        {"ca_file = " + test::certs::ca() + "\nclient_cert_file = " + missing,
         boost::system::errc::no_such_file_or_directory, "client_cert_file " + missing},
        {"ca_file = " + noAccess, boost::system::errc::permission_denied, "ca_file " + noAccess},
    };
    for (Case const& c : cases) {
        if (c.error == boost::system::errc::permission_denied && ::geteuid() == 0) continue; // root reads it all
        config.write(c.settings + "\n");
        Outcome outcome;
        auto http = client(outcome);
        boost::system::error_code const started = http->asyncRequest(request(localhost));
        EXPECT_EQ(started, boost::system::errc::make_error_code(c.error)) << c.settings << ": " << started.message();
        EXPECT_EQ(&started.category(), &boost::system::generic_category()) << c.settings;
        test::runUntilIdle(io);
        EXPECT_EQ(outcome.calls, 1);
        EXPECT_EQ(outcome.ec, started);

        auto const settings = controller::Settings::current();
        std::string which;
        EXPECT_EQ(checkTlsFiles(settings.caFile, settings.clientCertFile, &which), started);
        EXPECT_EQ(which, c.which);
    }
    EXPECT_TRUE(server.requests().empty());
    config.write("ca_file = " + test::certs::ca() + "\nclient_cert_file = " + test::certs::client() + "\n");
    EXPECT_FALSE(checkTlsFiles(test::certs::ca(), test::certs::client()));
    EXPECT_FALSE(get().ec);
    boost::filesystem::remove_all(dir);
}

// The peer's name is checked, not only its CA: a certificate for "localhost" alone is good for
// https://localhost and refused for https://127.0.0.1, although the same CA signed it.
TEST(HttpClientHostName, TheCertificateMustNameTheHostAsTheUrlDoes)
{
    auto const dir = boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("hostname-%%%%");
    boost::filesystem::create_directories(dir);
    emulator::HttpServer server(
        [](emulator::Request const&) { return emulator::Response(beast::http::status::ok, 11); },
        test::certs::issueServerCertificate(dir.string(), "named", "DNS:localhost", -1h, 24h));
    ScopedControllerConfig config{"ca_file = " + test::certs::ca() + "\n"};
    auto fetch = [](std::string const& url) {
        boost::asio::io_context io;
        boost::system::error_code result = boost::asio::error::would_block;
        HttpClient client(io, [&](HttpResponse const&, boost::system::error_code const& ec) { result = ec; });
        HttpRequest request;
        boost::system::error_code parsed;
        request.url(Url::createUrl(url, parsed));
        client.asyncRequest(request);
        io.run();
        return result;
    };
    std::string const port = std::to_string(server.port());
    EXPECT_FALSE(fetch("https://localhost:" + port + "/")) << "the name the certificate carries";
    boost::system::error_code const byAddress = fetch("https://127.0.0.1:" + port + "/");
    EXPECT_EQ(byAddress.category(), boost::asio::error::get_ssl_category()) << byAddress.message();
    EXPECT_EQ(server.requests().size(), 1u);
    boost::filesystem::remove_all(dir);
}

} // namespace
} // namespace tavix::net::http
