#include <restclient/RequestEngine.h>

#include <restclient/veltrun/TavixErrorResponse.h>
#include <tests/support/Loopback.h>
#include <tools/emulator/HttpServer.h>

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <thread>

namespace tavix::restclient {
namespace {

using emulator::Fault;
using emulator::HttpServer;
namespace http = boost::beast::http;
using namespace std::chrono_literals;

// A success document that remembers what it was given.
struct Doc : IWebResponse {
    void handleResponse(Json::Value const& document) override
    {
        seen = document;
        filled = true;
    }
    Json::Value seen;
    bool filled = false;
};

using Engine = RestClient<Doc, veltrun::TavixErrorResponse>;

using Outcome = test::Completion<Doc, veltrun::TavixErrorResponse>;

class RestClientTest : public ::testing::Test {
protected:
    void reply(unsigned int status, std::string body)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_status = status;
        m_body = std::move(body);
    }

    std::unique_ptr<Engine> engine(std::string const& url, bool withCallback = true)
    {
        Engine::Callback callback;
        if (withCallback) callback = outcome.callback();
        auto client = std::make_unique<Engine>(io, callback);
        boost::system::error_code ec;
        client->request().url(net::http::Url::createUrl(url, ec));
        EXPECT_FALSE(ec) << url;
        client->request().accept("application/json");
        return client;
    }

    std::string url(std::string const& target = "/doc") const { return server.baseUrl() + target; }

    void runIo() { io.run_for(20s); }

    std::mutex m_mutex;
    unsigned int m_status = 200;
    std::string m_body = R"({"a": 1})";
    HttpServer server{[this](emulator::Request const&) {
        std::lock_guard<std::mutex> lock(m_mutex);
        emulator::Response response{static_cast<http::status>(m_status), 11};
        response.body() = m_body;
        response.prepare_payload();
        return response;
    }};
    boost::asio::io_context io;
    Outcome outcome;
};

TEST_F(RestClientTest, AnswerWithStatus200FillsTheSuccessDocumentOnTheIoThread)
{
    auto client = engine(url("//v1/accounts/current"));
    ASSERT_FALSE(client->asyncRequest(http::verb::get));
    runIo();

    ASSERT_EQ(outcome.calls, 1);
    EXPECT_EQ(outcome.thread, std::this_thread::get_id());
    EXPECT_EQ(outcome.status, 200u);
    EXPECT_FALSE(outcome.ec);
    EXPECT_TRUE(outcome.response.filled);
    EXPECT_EQ(outcome.response.seen["a"], 1);
    EXPECT_EQ(outcome.error.code.value, 0u);

    auto const request = server.lastRequest();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->requestLine, "GET //v1/accounts/current HTTP/1.1");
    EXPECT_FALSE(request->header("Content-Length"));
}

TEST_F(RestClientTest, ContentLengthIsSetOnlyForAPayload)
{
    auto client = engine(url());
    client->request().payload("{}");
    ASSERT_FALSE(client->asyncRequest(http::verb::put));
    runIo();

    auto const request = server.lastRequest();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->method, "PUT");
    EXPECT_EQ(request->header("Content-Length"), std::optional<std::string>("2"));
    EXPECT_EQ(request->body, "{}");
}

TEST_F(RestClientTest, EveryStatusButExactly200GoesToTheErrorDocument)
{
    struct Case {
        unsigned int status;
        std::string body;
        unsigned int code;
    };
    for (Case const& c :
         {Case{201, R"({"code": 7, "a": 1})", 7}, Case{401, R"({"TavixErrorResponse": {"code": 401}})", 401},
          Case{500, "not json", 0}, Case{404, "", 0}}) {
        reply(c.status, c.body);
        outcome = Outcome();
        auto client = engine(url());
        ASSERT_FALSE(client->asyncRequest(http::verb::get));
        io.restart();
        runIo();

        ASSERT_EQ(outcome.calls, 1) << c.status;
        EXPECT_EQ(outcome.status, c.status);
        EXPECT_FALSE(outcome.ec) << c.status << ": " << outcome.ec.message();
        EXPECT_FALSE(outcome.response.filled) << c.status;
        EXPECT_EQ(outcome.error.code.value, c.code) << c.status;
    }
}

// Nesting past the reader's limit of 1,000 levels makes the reader throw: the engine must
// take that as a body that does not parse, not let it out of io_context::run().
TEST_F(RestClientTest, JsonNestedPastTheReadersLimitIsABodyThatDoesNotParse)
{
    std::string const deep = std::string(1001, '[') + std::string(1001, ']');
    for (unsigned int status : {200u, 500u}) {
        reply(status, deep);
        outcome = Outcome();
        auto client = engine(url());
        ASSERT_FALSE(client->asyncRequest(http::verb::get));
        io.restart();
        ASSERT_NO_THROW(runIo()) << status;

        ASSERT_EQ(outcome.calls, 1) << status;
        EXPECT_EQ(outcome.status, status);
        EXPECT_EQ(outcome.ec,
                  status == 200 ? make_error_code(boost::system::errc::bad_message) : boost::system::error_code())
            << status;
        EXPECT_FALSE(outcome.response.filled) << status;
        EXPECT_EQ(outcome.error.code.value, 0u) << status;
    }
}

TEST_F(RestClientTest, ARequestWithoutAUrlIsRefusedWithoutACallback)
{
    Engine withoutUrl(io,
                      [this](Doc const&, veltrun::TavixErrorResponse, unsigned int, boost::system::error_code const&) {
                          ++outcome.calls;
                      });
    EXPECT_EQ(withoutUrl.asyncRequest(http::verb::get),
              boost::system::errc::make_error_code(boost::system::errc::invalid_argument));
    runIo();
    EXPECT_EQ(outcome.calls, 0);
}

TEST_F(RestClientTest, ARequestTheHttpClientRefusesIsReturnedAndReportedOnce)
{
    auto ftp = engine("ftp://127.0.0.1:1/doc");
    boost::system::error_code const refused = ftp->asyncRequest(http::verb::get);
    EXPECT_TRUE(refused);
    runIo();
    ASSERT_EQ(outcome.calls, 1);
    EXPECT_EQ(outcome.ec, refused);
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(RestClientTest, OneEngineDeliversOneCompletionAtMost)
{
    auto client = engine(url());
    ASSERT_FALSE(client->asyncRequest(http::verb::get));
    ASSERT_FALSE(client->asyncRequest(http::verb::get));
    runIo();
    EXPECT_EQ(outcome.calls, 0);

    outcome = Outcome();
    auto second = engine(url());
    ASSERT_FALSE(second->asyncRequest(http::verb::get));
    io.restart();
    runIo();
    ASSERT_EQ(outcome.calls, 1);
    ASSERT_FALSE(second->asyncRequest(http::verb::get));
    io.restart();
    runIo();
    EXPECT_EQ(outcome.calls, 1);
    EXPECT_EQ(server.requests().size(), 4u);
}

TEST_F(RestClientTest, DestroyingTheEngineBeforeTheAnswerDropsTheCompletion)
{
    server.pushFault(Fault::delayBy(100ms));
    auto client = engine(url());
    ASSERT_FALSE(client->asyncRequest(http::verb::get));
    client.reset();
    runIo();
    EXPECT_EQ(outcome.calls, 0);
}

TEST_F(RestClientTest, AnEmptyCallbackOnlyClosesTheExchange)
{
    auto client = engine(url(), false);
    ASSERT_FALSE(client->asyncRequest(http::verb::get));
    runIo();
    EXPECT_EQ(server.requests().size(), 1u);
}

} // namespace
} // namespace tavix::restclient
