#include <tools/emulator/HttpServer.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/write.hpp>
#include <boost/filesystem.hpp>

#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <iterator>
#include <thread>

namespace tavix::emulator {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using namespace std::chrono_literals;

struct RawReply {
    std::string bytes;
    bool closed = false;  // by the server, within the bound
};

// Sends `bytes` on a fresh connection and collects what comes back until the server closes.
RawReply sendRaw(unsigned short port, std::string const& bytes, std::chrono::milliseconds bound = 5s)
{
    asio::io_context io;
    tcp::socket socket(io);
    socket.connect({asio::ip::make_address("127.0.0.1"), port});
    RawReply reply;
    asio::async_write(socket, asio::buffer(bytes), [](boost::system::error_code, std::size_t) {});
    asio::async_read(socket, asio::dynamic_buffer(reply.bytes),
                     [&](boost::system::error_code ec, std::size_t) { reply.closed = ec == asio::error::eof; });
    io.run_for(bound);
    return reply;
}

Response text(std::string body)
{
    Response response{http::status::ok, 11};
    response.body() = std::move(body);
    return response;
}

class HttpServerTest : public ::testing::Test {
protected:
    HttpServer server{[](Request const& request) { return text("got " + std::to_string(request.body().size())); }};
};

TEST_F(HttpServerTest, KeepsTheConnectionAndRecordsEachRequestAsSent)
{
    RawReply const reply = sendRaw(server.port(),
                                   "GET //a//b?x=1 HTTP/1.1\r\nHost: h\r\nZ-Last: 1\r\nA-First: 2\r\n\r\n"
                                   "POST /p HTTP/1.1\r\nHost: h\r\nContent-Length: 3\r\nConnection: close\r\n\r\nabc");
    EXPECT_TRUE(reply.closed);
    EXPECT_NE(reply.bytes.find("got 0"), std::string::npos) << reply.bytes;
    EXPECT_NE(reply.bytes.find("got 3"), std::string::npos) << reply.bytes;

    auto const requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].requestLine, "GET //a//b?x=1 HTTP/1.1");
    EXPECT_EQ(requests[0].target, "//a//b?x=1");
    using Headers = std::vector<std::pair<std::string, std::string>>;
    EXPECT_EQ(requests[0].headers, (Headers{{"Host", "h"}, {"Z-Last", "1"}, {"A-First", "2"}}));
    EXPECT_EQ(requests[1].method, "POST");
    EXPECT_EQ(requests[1].body, "abc");
    EXPECT_EQ(requests[1].header("content-length"), "3");
}

TEST_F(HttpServerTest, FaultsApplyToTheNextRequestsInOrder)
{
    server.pushFault(Fault::dropConnection());
    server.pushFault(Fault::rawReply("RAW BYTES"));
    server.pushFault(Fault::delayBy(50ms));
    std::string const get = "GET / HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n";

    RawReply const dropped = sendRaw(server.port(), get);
    EXPECT_TRUE(dropped.closed);
    EXPECT_EQ(dropped.bytes, "");
    EXPECT_EQ(sendRaw(server.port(), get).bytes, "RAW BYTES");
    EXPECT_NE(sendRaw(server.port(), get).bytes.find("got 0"), std::string::npos);  // delayed, then answered
    EXPECT_EQ(server.requests().size(), 3u);
}

TEST_F(HttpServerTest, MalformedRequestsGet400AndTheServerCarriesOn)
{
    for (std::string const& garbage : {std::string("GARBAGE\r\n\r\n"), std::string("GET / HTTP/1.1\r\nno colon\r\n\r\n"),
                                       std::string("POST / HTTP/1.1\r\nContent-Length: x\r\n\r\n")}) {
        RawReply const reply = sendRaw(server.port(), garbage);
        EXPECT_EQ(reply.bytes.rfind("HTTP/1.1 400", 0), 0u) << garbage;
        EXPECT_TRUE(reply.closed) << garbage;
    }
    {
        // Nor does a client that connects and leaves at once.
        asio::io_context io;
        tcp::socket(io).connect({asio::ip::make_address("127.0.0.1"), server.port()});
    }
    EXPECT_NE(sendRaw(server.port(), "GET / HTTP/1.1\r\nConnection: close\r\n\r\n").bytes.find("got 0"), std::string::npos);
}

TEST_F(HttpServerTest, BodiesOverTheLimitGet413)
{
    server.setBodyLimit(4);
    EXPECT_EQ(sendRaw(server.port(), "PUT / HTTP/1.1\r\nContent-Length: 5\r\n\r\n12345").bytes.rfind("HTTP/1.1 413", 0), 0u);
    RawReply const chunked =
        sendRaw(server.port(), "PUT / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n3\r\n123\r\n2\r\n45\r\n0\r\n\r\n");
    EXPECT_EQ(chunked.bytes.rfind("HTTP/1.1 413", 0), 0u) << chunked.bytes;
    EXPECT_NE(sendRaw(server.port(), "PUT / HTTP/1.1\r\nContent-Length: 4\r\nConnection: close\r\n\r\n1234").bytes.find("got 4"),
              std::string::npos);
}

TEST_F(HttpServerTest, AChosenBodyIsStreamedIntoAFile)
{
    auto const file = boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("body-%%%%-%%%%");
    server.setBodyLimit(4);  // the memory limit does not apply to a body going to a file
    server.setBodyFileChooser([&](http::request_header<> const& head) {
        return head.target() == "/upload" ? file.string() : std::string();
    });
    std::string const body(100000, 'z');
    RawReply const reply =
        sendRaw(server.port(), "PUT /upload HTTP/1.1\r\nConnection: close\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
    EXPECT_NE(reply.bytes.find("got 0"), std::string::npos) << reply.bytes.substr(0, 100);

    std::ifstream in(file.string(), std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), body);
    auto const seen = server.lastRequest();
    ASSERT_TRUE(seen);
    EXPECT_EQ(seen->body, "");
    boost::filesystem::remove(file);
}

TEST_F(HttpServerTest, ExpectContinueIsAnsweredBeforeTheBody)
{
    asio::io_context io;
    tcp::socket socket(io);
    socket.connect({asio::ip::make_address("127.0.0.1"), server.port()});
    asio::write(socket, asio::buffer(std::string("PUT /upload HTTP/1.1\r\nExpect: 100-continue\r\n"
                                                 "Content-Length: 4\r\nConnection: close\r\n\r\n")));
    std::string interim;
    asio::async_read_until(socket, asio::dynamic_buffer(interim), "\r\n\r\n",
                           [](boost::system::error_code, std::size_t) {});
    io.run_for(5s);
    EXPECT_EQ(interim, "HTTP/1.1 100 Continue\r\n\r\n");

    asio::write(socket, asio::buffer(std::string("body")));
    std::string final;
    asio::async_read(socket, asio::dynamic_buffer(final), [](boost::system::error_code, std::size_t) {});
    io.restart();
    io.run_for(5s);
    EXPECT_EQ(final.rfind("HTTP/1.1 200 OK", 0), 0u) << final;
    auto const seen = server.lastRequest();
    ASSERT_TRUE(seen);
    EXPECT_EQ(seen->body, "body");
}

TEST(HttpServerLifetime, TheDestructorReturnsWithSilentConnectionsOpen)
{
    auto server = std::make_unique<HttpServer>([](Request const&) { return text("never"); });
    server->pushFault(Fault::neverAnswer());
    asio::io_context io;
    tcp::endpoint const endpoint{asio::ip::make_address("127.0.0.1"), server->port()};
    tcp::socket idle(io), waiting(io);
    idle.connect(endpoint);
    waiting.connect(endpoint);
    asio::write(waiting, asio::buffer(std::string("GET / HTTP/1.1\r\n\r\n")));
    for (int i = 0; i < 500 && server->requests().empty(); ++i) std::this_thread::sleep_for(10ms);
    ASSERT_EQ(server->requests().size(), 1u);

    auto stopped = std::async(std::launch::async, [&] { server.reset(); });
    if (stopped.wait_for(10s) != std::future_status::ready) {
        ADD_FAILURE() << "the server's destructor is stuck";
        std::abort();  // rather than hang the test run
    }
}

} // namespace
} // namespace tavix::emulator
