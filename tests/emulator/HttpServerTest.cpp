#include <tests/emulator/EmulatorCalls.h>
#include <tools/emulator/HttpServer.h>

#include <boost/filesystem.hpp>

#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <iterator>
#include <thread>

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
    std::string const reply = sendRaw(server.port(),
                                      "GET //a//b?x=1 HTTP/1.1\r\nHost: h\r\nZ-Last: 1\r\nA-First: 2\r\n\r\n"
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
    EXPECT_NE(sendRaw(server.port(), get).find("got 0"), std::string::npos); // delayed, then answered
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
    calls::RawConnection{server.port()}; // a client that connects and leaves at once
    EXPECT_NE(sendRaw(server.port(), get).find("got 0"), std::string::npos);
}

TEST_F(HttpServerTest, AChosenBodyIsStreamedIntoAFile)
{
    auto const file = boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("body-%%%%-%%%%");
    server.setBodyLimit(4); // the memory limit does not apply to a body going to a file
    server.setBodyFileChooser(
        [&](http::request_header<> const& head) { return head.target() == "/upload" ? file.string() : ""; });
    std::string const body(100000, 'z');
    std::string const reply = sendRaw(server.port(),
                                      "PUT /upload HTTP/1.1\r\nConnection: close\r\nContent-Length: "
                                          + std::to_string(body.size()) + "\r\n\r\n" + body);
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

TEST_F(HttpServerTest, CapturedRequestsStayWithinTheirLimitsTheOldestGoingFirst)
{
    server.setCaptureLimits({3, 10});
    std::string const post = "POST /n HTTP/1.1\r\nContent-Length: 5\r\n\r\n12345";
    sendRaw(server.port(), post + post + post + post + get);
    auto requests = server.requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].body, "12345");
    EXPECT_EQ(requests[2].method, "GET");

    sendRaw(server.port(),
            "POST /big HTTP/1.1\r\nContent-Length: 25\r\nConnection: close\r\n\r\n" + std::string(25, 'b'));
    requests = server.requests();
    ASSERT_EQ(requests.size(), 2u) << "the bodies' bytes within 10: the two older bodies went";
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_EQ(requests.back().body, std::string(10, 'b'));
    EXPECT_EQ(requests.back().bodySize, 25u);
}

// A client that sends nothing, or stops sending, loses the connection; one that sends slowly
// but steadily is served.
TEST_F(HttpServerTest, ReadTimeOutClosesSilentAndStalledClients)
{
    server.setReadTimeout(300ms);
    auto const start = std::chrono::steady_clock::now();
    EXPECT_EQ(sendRaw(server.port(), ""), "");
    EXPECT_EQ(sendRaw(server.port(), "POST / HTTP/1.1\r\nContent-Length: 10\r\n\r\nabc"), "");
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);

    calls::RawConnection slow(server.port());
    slow.send("POST / HTTP/1.1\r\nContent-Length: 6\r\nConnection: close\r\n\r\n");
    for (char c : std::string("abcdef")) {
        std::this_thread::sleep_for(100ms);
        slow.send(std::string(1, c));
    }
    EXPECT_NE(slow.rest().find("got 6"), std::string::npos);
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
        std::abort(); // rather than hang the test run
    }
}

} // namespace
} // namespace tavix::emulator
