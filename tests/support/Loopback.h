// Shared by the client tests: the cloud emulator on loopback with the io_context the clients
// run on, a recorder for completion callbacks that waits within a bound (a lost completion
// fails the test instead of hanging it), and a recording request-signing hook.
#pragma once

#include <tavix/net/http/HttpClient.h>
#include <tests/support/Json.h>
#include <tools/emulator/CloudEmulator.h>

#include <boost/asio/io_context.hpp>
#include <boost/function.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tavix::test {

// Runs `io` until `done()` holds (true) or `bound` has passed (false).
bool runUntil(boost::asio::io_context& io, std::function<bool()> const& done, std::chrono::milliseconds bound);
// Runs `io` until it has no work left, within a bound that fails the test.
void runUntilIdle(boost::asio::io_context& io, std::chrono::milliseconds bound = std::chrono::seconds(10));

// What a client's callback was given, how often it was called, and on which thread.
template <typename Response, typename ErrorResponse>
struct Completion {
    boost::function<void(Response const&, ErrorResponse, unsigned int, boost::system::error_code const&)> callback()
    {
        return [this](Response const& r, ErrorResponse e, unsigned int s, boost::system::error_code const& c) {
            ++calls, response = r, error = e, status = s, ec = c, thread = std::this_thread::get_id();
        };
    }
    bool wait(boost::asio::io_context& io, std::chrono::milliseconds bound = std::chrono::seconds(10))
    {
        return runUntil(
            io, [this] { return calls > 0; }, bound);
    }

    int calls = 0;
    Response response;
    ErrorResponse error;
    unsigned int status = 0;
    boost::system::error_code ec;
    std::thread::id thread;
};

// The same for the HTTP client's own completion.
struct HttpCompletion {
    net::http::HttpClient::Completion callback()
    {
        return [this](net::http::HttpResponse const& r, boost::system::error_code const& c) {
            ++calls, response = r, ec = c, thread = std::this_thread::get_id();
        };
    }
    bool wait(boost::asio::io_context& io, std::chrono::milliseconds bound = std::chrono::seconds(10))
    {
        return runUntil(
            io, [this] { return calls > 0; }, bound);
    }

    int calls = 0;
    net::http::HttpResponse response;
    boost::system::error_code ec;
    std::thread::id thread;
};

// What the signing hook saw last, and what it answers. A hook is a plain function, so its
// record is a static, reset by each LoopbackTest.
struct HookRecord {
    int calls = 0;
    std::string method, url, body;
    std::size_t headers = 0;
    std::string answer;
};
HookRecord& hook();
std::string recordingHook(std::string const& method, std::string const& url, std::string const& body,
                          std::vector<std::pair<std::string, std::string>> const& headers);

class LoopbackTest : public ::testing::Test {
protected:
    explicit LoopbackTest(emulator::EmulatorConfig config = {});

    // The one request the services saw (a default one, failing the test, when not exactly one).
    emulator::CapturedRequest onlyRequest() const;
    // Accept and Content-Type "application/json", no User-Agent, and this Authorization
    // (nullopt: none).
    static void expectJsonHeaders(emulator::CapturedRequest const& request,
                                  std::optional<std::string> const& authorization);
    // Runs the loop until it is idle and checks that no callback came and nothing reached the
    // services: a request refused before it started leaves nothing outstanding.
    template <typename C>
    void expectNothingSent(C& done)
    {
        runUntilIdle(io);
        EXPECT_EQ(done.calls, 0);
        EXPECT_TRUE(cloud.serviceRequests().empty());
    }

    boost::asio::io_context io;
    emulator::CloudEmulator cloud;
    std::string const host = "127.0.0.1";
    std::string const token = emulator::kDefaultToken;
};

} // namespace tavix::test
