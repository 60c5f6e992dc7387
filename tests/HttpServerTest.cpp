#include <tests/emulator/EmulatorCalls.h>
#include <tools/emulator/HttpServer.h>

#include <boost/filesystem.hpp>

#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <iterator>

namespace tavix::emulator {
namespace {

using namespace std::chrono_literals;

// Sends `bytes` on a fresh connection; what came back before the server closed ("" if it never did).
std::string sendRaw(unsigned short port, std::string const& bytes)
{
    calls::RawConnection connection(port);
    connection.send(bytes);
    return connection.rest();
}

class HttpServerTest : public ::testing::Test {
protected:
    HttpServer server{[](Request const& request) {
        Response response{http::status::ok, 11};
        response.body() = "got " + std::to_string(request.body().size());
        return response;
    }};
    std::string const get = "GET / HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n";
};

TEST_F(HttpServerTest, KeepsTheConnectionAndRecordsEachRequestAsSent)
{
    std::string const reply = sendRaw(server.port(), "GET //a//b?x=1 HTTP/1.1\r\nHost: h\r\nZ-Last: 1\r\nA-First: 2\r\n\r\n"
                                                     "POST /p HTTP/1.1\r\nContent-Length: 3\r\nConnection: close\r\n\r\nabc");
    EXPECT_NE(reply.find("got 0"), std::string::npos) << reply;
    EXPECT_NE(reply.find("got 3"), std::string::npos) << reply;
    auto const requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].requestLine, "GET //a//b?x=1 HTTP/1.1");
    using Headers = std::vector<std::pair<std::string, std::string>>;
    EXPECT_EQ(requests[0].headers, (Headers{{"Host", "h"}, {"Z-Last", "1"}, {"A-First", "2"}}));
    EXPECT_EQ(requests[1].body, "abc");
    EXPECT_EQ(requests[1].header("content-length"), "3");
}

TEST_F(HttpServerTest, FaultsApplyToTheNextRequestsInOrder)
{
    server.pushFault(Fault::dropConnection());
    server.pushFault(Fault::rawReply("RAW BYTES"));
    server.pushFault(Fault::delayBy(50ms));
    EXPECT_EQ(sendRaw(server.port(), get), "");
    EXPECT_EQ(sendRaw(server.port(), get), "RAW BYTES");
    EXPECT_NE(sendRaw(server.port(), get).find("got 0"), std::string::npos);  // delayed, then answered
    EXPECT_EQ(server.requests().size(), 3u);
}

TEST_F(HttpServerTest, MalformedOrOversizedRequestsAreRefusedAndTheServerCarriesOn)
{
    server.setBodyLimit(4);
    for (auto const& [bytes, status] : std::vector<std::pair<std::string, std::string>>{
             {"GARBAGE\r\n\r\n", "HTTP/1.1 400"},
             {"GET / HTTP/1.1\r\nno colon\r\n\r\n", "HTTP/1.1 400"},
             {"POST / HTTP/1.1\r\nContent-Length: x\r\n\r\n", "HTTP/1.1 400"},
             {"PUT / HTTP/1.1\r\nContent-Length: 5\r\n\r\n12345", "HTTP/1.1 413"},
             {"PUT / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n3\r\n123\r\n2\r\n45\r\n0\r\n\r\n", "HTTP/1.1 413"},
             {"PUT / HTTP/1.1\r\nContent-Length: 4\r\nConnection: close\r\n\r\n1234", "HTTP/1.1 200"},
         })
        EXPECT_EQ(sendRaw(server.port(), bytes).rfind(status, 0), 0u) << bytes;
    calls::RawConnection{server.port()};  // a client that connects and leaves at once
    EXPECT_NE(sendRaw(server.port(), get).find("got 0"), std::string::npos);
}

TEST_F(HttpServerTest, AChosenBodyIsStreamedIntoAFile)
{
    auto const file = boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("body-%%%%-%%%%");
    server.setBodyLimit(4);  // the memory limit does not apply to a body going to a file
    server.setBodyFileChooser([&](http::request_header<> const& head) { return head.target() == "/upload" ? file.string() : ""; });
    std::string const body(100000, 'z');
    std::string const reply = sendRaw(server.port(), "PUT /upload HTTP/1.1\r\nConnection: close\r\nContent-Length: " +
                                                         std::to_string(body.size()) + "\r\n\r\n" + body);
    EXPECT_NE(reply.find("got 0"), std::string::npos) << reply.substr(0, 100);
    std::ifstream in(file.string(), std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), body);
    boost::filesystem::remove(file);
}

TEST_F(HttpServerTest, ExpectContinueIsAnsweredBeforeTheBody)
{
    calls::RawConnection connection(server.port());
    connection.send("PUT / HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 4\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(connection.nextHead(), "HTTP/1.1 100 Continue\r\n\r\n");
    connection.send("body");
    EXPECT_NE(connection.rest().find("got 4"), std::string::npos);
}

TEST(HttpServerLifetime, TheDestructorReturnsWithSilentConnectionsOpen)
{
    auto server = std::make_unique<HttpServer>([](Request const&) { return Response(); });
    server->pushFault(Fault::neverAnswer());
    calls::RawConnection idle(server->port()), waiting(server->port());
    waiting.send("GET / HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(calls::eventually([&] { return !server->requests().empty(); }));

    auto stopped = std::async(std::launch::async, [&] { server.reset(); });
    if (stopped.wait_for(10s) != std::future_status::ready) {
        ADD_FAILURE() << "the server's destructor is stuck";
        std::abort();  // rather than hang the test run
    }
}

} // namespace
} // namespace tavix::emulator
