#include <platform/net/http/HttpClient.h>

#include <platform/controller/Settings.h>
#include <tests/support/Loopback.h>
#include <tests/support/ScopedControllerConfig.h>
#include <tests/support/TestCerts.h>
#include <tools/emulator/HttpServer.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/error.hpp>

#include <gtest/gtest.h>

#include <mutex>
#include <thread>

namespace tavix::net::http {
namespace {

using emulator::Fault;
using emulator::HttpServer;
using testing::ScopedControllerConfig;
namespace beast = boost::beast;
using beast::http::verb;
using namespace std::chrono_literals;

struct Outcome {
    int calls = 0;
    HttpResponse response;
    boost::system::error_code ec;
    std::thread::id thread;
    bool duringStart = false;
};

emulator::Response reply(unsigned int status, std::string body)
{
    emulator::Response response{static_cast<beast::http::status>(status), 11};
    response.set("X-Reply", "yes");
    response.body() = std::move(body);
    response.prepare_payload();
    return response;
}

class HttpClientTest : public ::testing::Test {
protected:
    explicit HttpClientTest(std::optional<emulator::TlsFiles> tls = std::nullopt)
        : server([](emulator::Request const& request) { return reply(200, "echo:" + request.body()); }, tls)
    {}

    HttpRequest request(std::string const& url, std::string payload = {})
    {
        HttpRequest request;
        boost::system::error_code ec;
        request.url(Url::createUrl(url, ec));
        EXPECT_FALSE(ec) << url;
        request.payload(payload);
        return request;
    }

    std::unique_ptr<HttpClient> client(Outcome& outcome, ClientOptions const& options = {})
    {
        return std::make_unique<HttpClient>(
            io,
            [&outcome, this](HttpResponse const& response, boost::system::error_code const& ec) {
                ++outcome.calls;
                outcome.response = response;
                outcome.ec = ec;
                outcome.thread = std::this_thread::get_id();
                outcome.duringStart = m_starting;
            },
            options);
    }

    // One exchange, run to its end: the completion, then whatever else the context still holds
    // (a second completion would show).
    Outcome exchange(HttpRequest const& request, ClientOptions const& options = {})
    {
        Outcome outcome;
        auto http = client(outcome, options);
        m_starting = true;
        boost::system::error_code const started = http->asyncRequest(request);
        m_starting = false;
        EXPECT_FALSE(started) << started.message();
        if (!started) {
            EXPECT_TRUE(testing::runUntil(io, [&] { return outcome.calls > 0; }, 10s));
            http->close(true);
            io.restart();
            io.run_for(5s);
        }
        EXPECT_EQ(outcome.calls, 1);
        EXPECT_EQ(outcome.thread, std::this_thread::get_id());
        EXPECT_FALSE(outcome.duringStart);
        return outcome;
    }

    Outcome get(std::string const& target, ClientOptions const& options = {})
    {
        return exchange(request(server.baseUrl() + target), options);
    }

    HttpServer server;
    boost::asio::io_context io;
    bool m_starting = false;
};

TEST_F(HttpClientTest, SendsTheRequestAsGivenAndPassesTheAnswerThrough)
{
    HttpRequest put = request(server.baseUrl() + "//v1//things/7?q=a//b", R"({"a":1})");
    put.method(verb::put);
    put.setField("Authorization", "Bearer t");
    put.contentType("application/json");
    Outcome const outcome = exchange(put);
    EXPECT_FALSE(outcome.ec);
    EXPECT_EQ(outcome.response.status(), 200u);
    EXPECT_EQ(outcome.response.payload(), R"(echo:{"a":1})");
    EXPECT_EQ(outcome.response.fields()["X-Reply"], "yes");

    auto seen = server.lastRequest();
    ASSERT_TRUE(seen);
    EXPECT_EQ(seen->requestLine, "PUT //v1//things/7?q=a//b HTTP/1.1");
    EXPECT_EQ(seen->header("Host"), "127.0.0.1:" + std::to_string(server.port()));
    EXPECT_EQ(seen->header("Authorization"), "Bearer t");
    EXPECT_EQ(seen->header("Content-Type"), "application/json");
    EXPECT_EQ(seen->header("Content-Length"), "7");
    EXPECT_EQ(seen->body, R"({"a":1})");

    EXPECT_FALSE(get("/empty").ec);
    seen = server.lastRequest();
    ASSERT_TRUE(seen);
    EXPECT_EQ(seen->requestLine, "GET /empty HTTP/1.1");
    EXPECT_EQ(seen->header("Content-Length"), std::nullopt);  // not even "0"
}

TEST_F(HttpClientTest, RequestsThatCannotStartReturnAnErrorAndCompleteWithIt)
{
    Outcome outcome;
    auto http = client(outcome);
    EXPECT_TRUE(http->asyncRequest(HttpRequest()));
    EXPECT_TRUE(http->asyncRequest(request("ftp://127.0.0.1/file")));
    {
        ScopedControllerConfig config("no equals sign here\n");
        boost::system::error_code const ec = http->asyncRequest(request("https://127.0.0.1:1/"));
        EXPECT_EQ(ec, controller::SettingsError::malformedLine);
    }
    {
        ScopedControllerConfig config("ca_file = /nonexistent/ca.pem\n");
        EXPECT_TRUE(http->asyncRequest(request("https://127.0.0.1:1/")));
    }
    io.run_for(5s);
    EXPECT_EQ(outcome.calls, 4);
    EXPECT_TRUE(outcome.ec);
}

TEST_F(HttpClientTest, BrokenPeersEndInATransportError)
{
    unsigned short closedPort;
    {
        boost::asio::ip::tcp::acceptor unused(io, {boost::asio::ip::make_address("127.0.0.1"), 0});
        closedPort = unused.local_endpoint().port();
    }
    Outcome const refused = exchange(request("http://127.0.0.1:" + std::to_string(closedPort) + "/"));
    EXPECT_EQ(refused.ec, boost::asio::error::connection_refused);
    EXPECT_EQ(refused.response.status(), 0u);

    server.pushFault(Fault::dropConnection());
    Outcome const dropped = get("/");
    EXPECT_TRUE(dropped.ec);
    EXPECT_EQ(dropped.response.status(), 0u);

    server.pushFault(Fault::rawReply("this is not HTTP at all\r\n\r\n"));
    EXPECT_TRUE(get("/").ec);

    // The head arrived, the body was cut short: the error comes with the status read.
    server.pushFault(Fault::rawReply("HTTP/1.1 503 Service Unavailable\r\nContent-Length: 100\r\n\r\nshort"));
    Outcome const cut = get("/");
    EXPECT_EQ(cut.ec, beast::http::error::partial_message);
    EXPECT_EQ(cut.response.status(), 503u);
}

TEST_F(HttpClientTest, ABodyOverTheLimitIsAnError)
{
    ClientOptions small;
    small.maxBodySize = 16;
    server.pushFault(Fault::rawReply("HTTP/1.1 200 OK\r\nContent-Length: 17\r\n\r\n12345678901234567"));
    EXPECT_EQ(get("/", small).ec, beast::http::error::body_limit);
    server.pushFault(
        Fault::rawReply("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n10\r\n1234567890123456\r\n1\r\n7\r\n0\r\n\r\n"));
    EXPECT_EQ(get("/", small).ec, beast::http::error::body_limit);
    EXPECT_FALSE(get("/", small).ec);  // "echo:" fits
}

TEST_F(HttpClientTest, ASilentServerTimesOut)
{
    ClientOptions quick;
    quick.exchangeTimeout = 300ms;
    server.pushFault(Fault::neverAnswer());
    EXPECT_EQ(get("/", quick).ec, beast::error::timeout);

    // The process-wide defaults apply to clients constructed without options.
    ClientOptions const saved = HttpClient::defaultOptions();
    HttpClient::setDefaultOptions(quick);
    server.pushFault(Fault::neverAnswer());
    Outcome outcome;
    auto http = std::make_unique<HttpClient>(io, [&](HttpResponse const&, boost::system::error_code const& ec) {
        ++outcome.calls;
        outcome.ec = ec;
    });
    HttpClient::setDefaultOptions(saved);
    ASSERT_FALSE(http->asyncRequest(request(server.baseUrl() + "/")));
    EXPECT_TRUE(testing::runUntil(io, [&] { return outcome.calls > 0; }, 10s));
    EXPECT_EQ(outcome.ec, beast::error::timeout);
}

TEST_F(HttpClientTest, AHandshakeThatNeverHappensEndsAtTheConnectTimeOut)
{
    // The kernel completes the TCP connection; nobody ever speaks TLS on it.
    boost::asio::ip::tcp::acceptor mute(io, {boost::asio::ip::make_address("127.0.0.1"), 0});
    ClientOptions options;
    options.connectTimeout = 200ms;
    Outcome const outcome = exchange(request("https://127.0.0.1:" + std::to_string(mute.local_endpoint().port()) + "/"), options);
    EXPECT_EQ(outcome.ec, beast::error::timeout);
}

TEST_F(HttpClientTest, StartsFromAnyThreadAndCompletesOnTheIoThread)
{
    Outcome outcome;
    auto http = client(outcome);
    boost::system::error_code started;
    std::thread([&] { started = http->asyncRequest(request(server.baseUrl() + "/")); }).join();
    ASSERT_FALSE(started);
    EXPECT_TRUE(testing::runUntil(io, [&] { return outcome.calls > 0; }, 10s));
    EXPECT_EQ(outcome.thread, std::this_thread::get_id());
    EXPECT_EQ(outcome.response.status(), 200u);
}

TEST_F(HttpClientTest, AnExchangeOutlivesItsClient)
{
    server.pushFault(Fault::delayBy(100ms));
    Outcome outcome;
    auto http = client(outcome);
    ASSERT_FALSE(http->asyncRequest(request(server.baseUrl() + "/")));
    http.reset();
    EXPECT_TRUE(testing::runUntil(io, [&] { return outcome.calls > 0; }, 10s));
    io.restart();
    io.run_for(5s);
    EXPECT_EQ(outcome.calls, 1);
    EXPECT_FALSE(outcome.ec);
    EXPECT_EQ(outcome.response.status(), 200u);
}

TEST_F(HttpClientTest, ClosingMidExchangeEndsItWithAnError)
{
    for (bool force : {true, false}) {
        server.pushFault(Fault::neverAnswer());
        Outcome outcome;
        auto http = client(outcome);
        ASSERT_FALSE(http->asyncRequest(request(server.baseUrl() + "/")));
        EXPECT_TRUE(testing::runUntil(io, [&] { return server.requests().size() > 0; }, 10s));
        http->close(force);
        EXPECT_TRUE(testing::runUntil(io, [&] { return outcome.calls > 0; }, 10s)) << force;
        EXPECT_TRUE(outcome.ec) << force;
        server.clearRequests();
    }
}

class HttpClientTlsTest : public HttpClientTest {
protected:
    HttpClientTlsTest() : HttpClientTest(serverFiles()) {}

    static emulator::TlsFiles serverFiles()
    {
        emulator::TlsFiles files = testing::certs::trustedServer();
        files.clientCa = testing::certs::ca();
        return files;
    }

    std::string localhostUrl() const { return "https://localhost:" + std::to_string(server.port()) + "/secure"; }

    ScopedControllerConfig config{"ca_file = " + testing::certs::ca() + "\n"};
};

TEST_F(HttpClientTlsTest, AServerSignedByTheConfiguredCaIsTrustedByNameAndAddress)
{
    for (std::string const& url : {server.baseUrl() + "/secure", localhostUrl()}) {
        Outcome const outcome = exchange(request(url, "x"));
        EXPECT_FALSE(outcome.ec) << url << ": " << outcome.ec.message();
        EXPECT_EQ(outcome.response.payload(), "echo:x") << url;
    }
    auto const seen = server.lastRequest();
    ASSERT_TRUE(seen);
    EXPECT_EQ(seen->header("Host"), "localhost:" + std::to_string(server.port()));
    EXPECT_EQ(seen->clientCommonName, "");
}

TEST_F(HttpClientTlsTest, TheConfiguredClientCertificateIsPresented)
{
    config.write("ca_file = " + testing::certs::ca() + "\nclient_cert_file = " + testing::certs::client() + "\n");
    EXPECT_FALSE(get("/").ec);
    auto const seen = server.lastRequest();
    ASSERT_TRUE(seen);
    EXPECT_EQ(seen->clientCommonName, "restclient test client");
}

TEST_F(HttpClientTlsTest, WithoutTheCaTheServerIsNotTrusted)
{
    config.write("");  // the system's CAs know nothing of the test CA
    Outcome const outcome = get("/");
    EXPECT_TRUE(outcome.ec);
    EXPECT_EQ(outcome.response.status(), 0u);
    EXPECT_TRUE(server.requests().empty());
}

class HttpClientUntrustedTlsTest : public HttpClientTest {
protected:
    HttpClientUntrustedTlsTest() : HttpClientTest(testing::certs::untrustedServer()) {}
    ScopedControllerConfig config{"ca_file = " + testing::certs::ca() + "\n"};
};

TEST_F(HttpClientUntrustedTlsTest, ASelfSignedServerIsNeverASuccess)
{
    for (std::string const& url : {server.baseUrl() + "/", "https://localhost:" + std::to_string(server.port()) + "/"}) {
        Outcome const outcome = exchange(request(url));
        EXPECT_TRUE(outcome.ec) << url;
        EXPECT_EQ(outcome.response.status(), 0u) << url;
    }
    EXPECT_TRUE(server.requests().empty());
}

} // namespace
} // namespace tavix::net::http
