// What must never give way: a token shows in the logs only masked, even at DEBUG, and a REST
// peer whose certificate does not verify is never talked to, whatever the settings say.
#include <tests/workers/UploaderFixture.h>

#include <restclient/account/AccountClient.h>

#include <tavix/Logger.h>
#include <tests/support/Loopback.h>

#include <log4cplus/appender.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

#include <mutex>
#include <set>

namespace tavix::test {
namespace {

// Every message logged through the root logger while it is attached, at DEBUG and above.
class CapturedLog : public log4cplus::Appender {
public:
    CapturedLog()
    {
        tavix::Logger::initialize(); // first, so that the workers' own set-up changes nothing later
        log4cplus::Logger::getRoot().setLogLevel(log4cplus::DEBUG_LOG_LEVEL);
    }
    ~CapturedLog() override { destructorImpl(); }
    void close() override {}
    std::vector<std::string> lines() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }

protected:
    void append(log4cplus::spi::InternalLoggingEvent const& event) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back(event.getMessage());
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

TEST_F(UploaderTest, AWholeUploadAtDebugLogsTokensOnlyMasked)
{
    log4cplus::SharedAppenderPtr const log(new CapturedLog);
    log4cplus::Logger::getRoot().addAppender(log);
    // A 401 on the upload-URL request: a second token is acquired and logged too.
    cloud.scriptReply({401, errorDocument(401), "application/json", "/files"});
    expectOutcome(*upload(), 0, "");
    log4cplus::Logger::getRoot().removeAppender(log);

    std::set<std::string> tokens;
    for (auto const& request : cloud.serviceRequests())
        if (auto bearer = request.header("Authorization"); bearer && bearer->rfind("Bearer ", 0) == 0)
            tokens.insert(bearer->substr(7));
    ASSERT_EQ(tokens.size(), cloud.tokenRequests());
    ASSERT_EQ(tokens.size(), 2u);
    for (std::string const& token : tokens) {
        std::string const hidden = token.substr(9);
        std::string const masked = token.substr(0, 9) + std::string(hidden.size(), '*');
        int maskedLines = 0;
        for (std::string const& line : static_cast<CapturedLog&>(*log).lines()) {
            EXPECT_EQ(line.find(hidden), std::string::npos) << "token shown: " << line;
            maskedLines += line.find(masked) != std::string::npos;
        }
        EXPECT_EQ(maskedLines, 1) << "the DEBUG line that shows " << masked;
    }
}

// A self-signed server, reached by address and by name: no setting makes it trusted.
TEST(TlsVerification, CannotBeTurnedOffForRestRequests)
{
    emulator::HttpServer untrusted(
        [](emulator::Request const&) { return emulator::Response(emulator::http::status::ok, 11); },
        certs::untrustedServer());
    ScopedControllerConfig settings;
    for (std::string const& text : std::vector<std::string>{
             "", "disable_tls = true\n", "disable_tls = false\n", "ca_file = " + certs::ca() + "\n",
             "ca_file = " + certs::ca() + "\nclient_cert_file = " + certs::client() + "\ndisable_tls = true\n",
             "verify_peer = false\n"}) {
        settings.write(text);
        for (std::string const host : {"127.0.0.1", "localhost"}) {
            boost::asio::io_context io;
            Completion<restclient::account::AccountResponse, restclient::veltrun::TavixErrorResponse> done;
            restclient::account::AccountClient client(io, done.callback(), host, untrusted.port(),
                                                      emulator::kDefaultToken, true, "/account/v1/rest");
            client.getCurrent();
            ASSERT_TRUE(done.wait(io)) << text << host;
            EXPECT_TRUE(done.ec) << text << host;
            EXPECT_EQ(done.status, 0u) << text << host;
        }
    }
    EXPECT_TRUE(untrusted.requests().empty());
}

} // namespace
} // namespace tavix::test
