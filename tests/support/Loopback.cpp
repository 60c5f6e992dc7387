#include <tests/support/Loopback.h>

#include <thread>

namespace tavix::test {

bool runUntil(boost::asio::io_context& io, std::function<bool()> const& done, std::chrono::milliseconds bound)
{
    auto const deadline = std::chrono::steady_clock::now() + bound;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        if (io.stopped()) io.restart();
        // An idle context returns at once; pause so that the loop does not spin.
        if (io.run_one_for(std::chrono::milliseconds(20)) == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    return true;
}

void runUntilIdle(boost::asio::io_context& io, std::chrono::milliseconds bound)
{
    io.restart();
    io.run_for(bound);
    EXPECT_TRUE(io.stopped()) << "work still outstanding after " << bound.count() << " ms";
}

HookRecord& hook()
{
    static HookRecord record;
    return record;
}

std::string recordingHook(std::string const& method, std::string const& url, std::string const& body,
                          std::vector<std::pair<std::string, std::string>> const& headers)
{
    HookRecord& record = hook();
    ++record.calls, record.method = method, record.url = url, record.body = body, record.headers = headers.size();
    return record.answer;
}

LoopbackTest::LoopbackTest(emulator::EmulatorConfig config) : cloud(std::move(config)) { hook() = {}; }

emulator::CapturedRequest LoopbackTest::onlyRequest() const
{
    std::vector<emulator::CapturedRequest> const requests = cloud.serviceRequests();
    EXPECT_EQ(requests.size(), 1u);
    return requests.size() == 1 ? requests.front() : emulator::CapturedRequest();
}

void LoopbackTest::expectJsonHeaders(emulator::CapturedRequest const& request,
                                     std::optional<std::string> const& authorization)
{
    EXPECT_EQ(request.header("Accept"), "application/json") << request.requestLine;
    EXPECT_EQ(request.header("Content-Type"), "application/json") << request.requestLine;
    EXPECT_EQ(request.header("User-Agent"), std::nullopt) << request.requestLine;
    EXPECT_EQ(request.header("Authorization"), authorization) << request.requestLine;
}

} // namespace tavix::test
