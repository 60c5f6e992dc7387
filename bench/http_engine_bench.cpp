// Sequential GETs of a ~1 KB JSON document from a loopback server: each through a fresh
// `RestClient` engine (URL parsed, headers set, JSON decoded, as a service client does it) and
// through a fresh `HttpClient` alone, beside minimal Boost.Beast code doing the same exchanges
// and decoding the same document with jsoncpp, over HTTP and over HTTPS, in two groups:
//  - a new connection per request: ours with `connection_reuse = false` (over HTTPS its new
//    connections resume the last TLS session), Beast with a full handshake each time and, over
//    HTTPS, Beast offering the last session too;
//  - kept alive: ours with reuse on (fresh client objects, one pooled connection), Beast over
//    one connection for all requests.
// Each row shows the rate and what one round cost the server (TCP connections, full and resumed
// TLS handshakes), so that a row is seen to measure what its name says; then our rates divided
// by each peer's.
//
//   http_engine_bench [http-requests=2000] [https-requests=300] [rounds=3]
// The kept-alive groups send five times as many requests, as they are that much faster.

#include <restclient/IWebResponse.h>
#include <restclient/RequestEngine.h>
#include <restclient/veltrun/BasicErrorResponse.h>
#include <restclient/veltrun/TavixErrorResponse.h>
#include <tools/emulator/HttpServer.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <boost/filesystem.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;
using namespace tavix;

std::string certFile(char const* name) { return std::string(RESTCLIENT_TEST_CERT_DIR) + "/" + name; }

std::string jsonDocument()
{
    std::string doc =
        R"({"id": "4f1c2a9e-63b0-4c1e-9a57-0d2e8c1b7f30", "name": "bench document", "version": 7, "links": [)";
    for (int i = 0; i < 12; ++i) {
        doc += fmt::format(R"({}{{"rel": "service-{}", "href": "https://service-{}.example.com/api/v1/items"}})",
                           i ? ", " : "", i, i);
    }
    return doc + R"(], "enabled": true})";
}

struct Doc : restclient::IWebResponse {
    void handleResponse(Json::Value const& root) override
    {
        id = root["id"].asString();
        links = root["links"].size();
    }
    std::string id;
    Json::Value::ArrayIndex links = 0;
};

using Engine = restclient::RestClient<Doc, restclient::veltrun::BasicErrorResponse>;

// The io_context stops whenever it runs out of work, between two exchanges for one.
void runUntil(asio::io_context& io, bool const& done, int& failures)
{
    if (io.stopped()) io.restart();
    while (!done && io.run_one() > 0) {}
    if (!done) ++failures;
}

// Returns the number of requests that did not bring the document back.
int engineLoop(std::string const& url, int count)
{
    asio::io_context io;
    int failures = 0;
    for (int i = 0; i < count; ++i) {
        bool done = false;
        Engine client(io,
                      [&](Doc const& doc, restclient::veltrun::BasicErrorResponse, unsigned int status,
                          boost::system::error_code const& ec) {
                          done = true;
                          if (ec || status != 200 || doc.links != 12) ++failures;
                      });
        boost::system::error_code ec;
        client.request().url(net::http::Url::createUrl(url, ec));
        client.request().accept("application/json");
        client.request().contentType("application/json");
        if (ec || client.asyncRequest(http::verb::get)) {
            ++failures;
            continue;
        }
        runUntil(io, done, failures);
    }
    io.run();
    return failures;
}

// The platform HTTP client alone, as the engine drives it but without the JSON decoding: what
// the transport costs.
int transportLoop(std::string const& url, int count)
{
    asio::io_context io;
    boost::system::error_code ec;
    net::http::HttpRequest request;
    request.url(net::http::Url::createUrl(url, ec));
    request.accept("application/json");
    request.contentType("application/json");
    int failures = 0;
    for (int i = 0; i < count; ++i) {
        bool done = false;
        auto http = std::make_shared<net::http::HttpClient>(
            io, [&](net::http::HttpResponse const& response, boost::system::error_code const& ec) {
                done = true;
                if (ec || response.status() != 200) ++failures;
            });
        if (ec || http->asyncRequest(request)) {
            ++failures;
            continue;
        }
        runUntil(io, done, failures);
        http->close(true);
    }
    io.run();
    return failures;
}

// The document decoded as a client would: jsoncpp's reader over the body, the two members read.
bool decoded(std::string const& body)
{
    static Json::CharReaderBuilder const builder;
    std::unique_ptr<Json::CharReader> const reader(builder.newCharReader());
    Json::Value root;
    if (!reader->parse(body.data(), body.data() + body.size(), &root, nullptr)) return false;
    return !root["id"].asString().empty() && root["links"].size() == 12;
}

// The obvious minimal Beast code: no time-outs, no URL parsing; the JSON decoded as ours is.
struct PlainBeast {
    enum class Mode {
        newConnection, // "Connection: close", a new connection (and full TLS handshake) per request
        resumed,       // the same, offering the TLS session of the previous connection
        keptAlive      // one connection for all requests
    };
    using TlsStream = asio::ssl::stream<tcp::socket>;

    PlainBeast(unsigned short port, asio::ssl::context* tls)
        : endpoint(asio::ip::make_address("127.0.0.1"), port), tls(tls)
    {
        for (auto* request : {&closing, &keepAlive}) {
            request->set(http::field::host, "127.0.0.1:" + std::to_string(port));
            request->set(http::field::accept, "application/json");
            request->set(http::field::content_type, "application/json");
        }
        closing.set(http::field::connection, "close");
    }

    ~PlainBeast() { SSL_SESSION_free(session); }

    // Before the handshake.
    void prepare(TlsStream& stream, Mode mode)
    {
        stream.set_verify_callback(asio::ssl::host_name_verification("127.0.0.1"));
        if (mode == Mode::resumed && session) SSL_set_session(stream.native_handle(), session);
    }
    // After the answer, when TLS 1.3 tickets have come in. A copy: the connection's own session
    // is marked not resumable when it ends without a TLS shutdown.
    void keepSession(TlsStream& stream, Mode mode)
    {
        if (mode != Mode::resumed) return;
        SSL_SESSION_free(session);
        SSL_SESSION* const current = SSL_get_session(stream.native_handle());
        session = current ? SSL_SESSION_dup(current) : nullptr;
    }

    http::request<http::empty_body> const& request(Mode mode) const
    {
        return mode == Mode::keptAlive ? keepAlive : closing;
    }

    int sync(int count, Mode mode)
    {
        asio::io_context io;
        int failures = 0;
        beast::flat_buffer buffer;
        auto exchange = [&](auto& stream, boost::system::error_code ec) {
            http::response<http::string_body> response;
            if (!ec) http::write(stream, request(mode), ec);
            if (!ec) http::read(stream, buffer, response, ec);
            if (ec || response.result_int() != 200 || !decoded(response.body())) ++failures;
        };
        auto openTls = [&](TlsStream& stream, boost::system::error_code& ec) {
            prepare(stream, mode);
            stream.next_layer().connect(endpoint, ec);
            if (!ec) stream.handshake(asio::ssl::stream_base::client, ec);
        };
        boost::system::error_code ec;
        if (mode == Mode::keptAlive && tls) {
            TlsStream stream(io, *tls);
            openTls(stream, ec);
            for (int i = 0; i < count; ++i) exchange(stream, ec);
        } else if (mode == Mode::keptAlive) {
            tcp::socket socket(io);
            socket.connect(endpoint, ec);
            for (int i = 0; i < count; ++i) exchange(socket, ec);
        } else {
            for (int i = 0; i < count; ++i) {
                buffer.clear();
                if (tls) {
                    TlsStream stream(io, *tls);
                    openTls(stream, ec);
                    exchange(stream, ec);
                    keepSession(stream, mode);
                } else {
                    tcp::socket socket(io);
                    socket.connect(endpoint, ec);
                    exchange(socket, ec);
                }
            }
        }
        return failures;
    }

    int async(int count, Mode mode)
    {
        asio::io_context io;
        int failures = 0;
        beast::flat_buffer buffer;
        http::response<http::string_body> response;
        bool done = false;
        auto finish = [&](boost::system::error_code ec) {
            done = true;
            if (ec || response.result_int() != 200 || !decoded(response.body())) ++failures;
        };
        auto exchange = [&](auto& stream) {
            response = {};
            http::async_write(stream, request(mode), [&](boost::system::error_code ec, std::size_t) {
                if (ec) return finish(ec);
                http::async_read(stream, buffer, response,
                                 [&](boost::system::error_code ec, std::size_t) { finish(ec); });
            });
        };
        auto openTls = [&](TlsStream& stream, auto then) {
            prepare(stream, mode);
            stream.next_layer().async_connect(endpoint, [&, then](boost::system::error_code ec) {
                if (ec) return finish(ec);
                stream.async_handshake(asio::ssl::stream_base::client, [&, then](boost::system::error_code ec) {
                    if (ec) return finish(ec);
                    then();
                });
            });
        };
        auto openPlain = [&](tcp::socket& socket, auto then) {
            socket.async_connect(endpoint, [&, then](boost::system::error_code ec) {
                if (ec) return finish(ec);
                then();
            });
        };
        // Kept alive: the first exchange opens the connection, the others use it.
        auto keptAlive = [&](auto& stream, auto open) {
            for (int i = 0; i < count; ++i) {
                done = false;
                if (i == 0) open(stream, [&] { exchange(stream); });
                else exchange(stream);
                runUntil(io, done, failures);
            }
        };
        if (mode == Mode::keptAlive && tls) {
            TlsStream stream(io, *tls);
            keptAlive(stream, openTls);
        } else if (mode == Mode::keptAlive) {
            tcp::socket socket(io);
            keptAlive(socket, openPlain);
        } else {
            for (int i = 0; i < count; ++i) {
                buffer.clear();
                done = false;
                if (tls) {
                    TlsStream stream(io, *tls);
                    openTls(stream, [&] { exchange(stream); });
                    runUntil(io, done, failures);
                    keepSession(stream, mode);
                } else {
                    tcp::socket socket(io);
                    openPlain(socket, [&] { exchange(socket); });
                    runUntil(io, done, failures);
                }
            }
        }
        io.run();
        return failures;
    }

    tcp::endpoint endpoint;
    asio::ssl::context* tls;
    SSL_SESSION* session = nullptr;
    http::request<http::empty_body> closing{http::verb::get, "/doc", 11};
    http::request<http::empty_body> keepAlive{http::verb::get, "/doc", 11};
};

// Two settings files, the same but for reuse; the settings follow the variable's path.
struct BenchSettings {
    explicit BenchSettings(std::string const& caFile)
    {
        std::ofstream(reuse.string()) << "ca_file = " << caFile << "\n";
        std::ofstream(noReuse.string()) << "ca_file = " << caFile << "\nconnection_reuse = false\n";
    }
    ~BenchSettings()
    {
        boost::filesystem::remove(reuse);
        boost::filesystem::remove(noReuse);
    }
    void use(bool connectionReuse) const
    {
        ::setenv("TAVIX_CONTROLLER_CONFIG", (connectionReuse ? reuse : noReuse).c_str(), 1);
    }

    boost::filesystem::path const reuse = unique("bench-reuse-%%%%%%.conf");
    boost::filesystem::path const noReuse = unique("bench-no-reuse-%%%%%%.conf");

private:
    static boost::filesystem::path unique(char const* model)
    {
        return boost::filesystem::temp_directory_path() / boost::filesystem::unique_path(model);
    }
};

struct Contender {
    std::string name;
    bool ours;
    std::function<int(int)> run;
};

struct Result {
    double rate = 0;                 // best of the rounds, requests per second
    emulator::ConnectionCounts cost; // of the last round
};

Result measure(Contender const& contender, int count, emulator::HttpServer const& server, Result best)
{
    emulator::ConnectionCounts const before = server.connectionCounts();
    auto const start = std::chrono::steady_clock::now();
    int const failures = contender.run(count);
    std::chrono::duration<double> const elapsed = std::chrono::steady_clock::now() - start;
    emulator::ConnectionCounts const after = server.connectionCounts();
    if (failures) fmt::print("  {}: {} of {} requests failed\n", contender.name, failures, count);
    best.rate = std::max(best.rate, count / elapsed.count());
    best.cost = {after.connections - before.connections, 0, after.fullHandshakes - before.fullHandshakes,
                 after.resumedHandshakes - before.resumedHandshakes};
    return best;
}

// Best of `rounds` for each, the contenders taking turns so that drift hits them alike.
void compare(std::string const& title, emulator::HttpServer const& server, int count, int rounds,
             std::vector<Contender> const& contenders)
{
    std::vector<Result> results(contenders.size());
    for (auto const& contender : contenders) contender.run(count / 10 + 1); // warm up: TLS context, allocator, pool
    for (int round = 0; round < rounds; ++round) {
        for (std::size_t i = 0; i < contenders.size(); ++i)
            results[i] = measure(contenders[i], count, server, results[i]);
    }
    fmt::print("{}: {} sequential GETs, best of {}\n", title, count, rounds);
    fmt::print("  {:<26} {:>8}   {:>11} {:>9} {:>11}   (server side, one round)\n", "", "req/s", "connections",
               "full TLS", "resumed TLS");
    for (std::size_t i = 0; i < contenders.size(); ++i) {
        fmt::print("  {:<26} {:8.0f}   {:11} {:9} {:11}\n", contenders[i].name, results[i].rate,
                   results[i].cost.connections, results[i].cost.fullHandshakes, results[i].cost.resumedHandshakes);
    }
    for (std::size_t i = 0; i < contenders.size(); ++i) {
        if (!contenders[i].ours) continue;
        std::string line;
        for (std::size_t j = 0; j < contenders.size(); ++j) {
            if (!contenders[j].ours)
                line += fmt::format("   / {} {:.3f}", contenders[j].name, results[i].rate / results[j].rate);
        }
        fmt::print("  {:<26}{}\n", contenders[i].name, line);
    }
    fmt::print("\n");
}

void compareProtocol(char const* name, std::string const& url, emulator::HttpServer const& server, int count,
                     int rounds, PlainBeast& plain, BenchSettings const& settings)
{
    using Mode = PlainBeast::Mode;
    bool const tls = url.rfind("https:", 0) == 0;
    auto ours = [&](bool reuse, auto loop) {
        return [&settings, url, reuse, loop](int n) {
            settings.use(reuse);
            return loop(url, n);
        };
    };
    std::vector<Contender> fresh = {
        {"engine (RestClient)", true, ours(false, engineLoop)},
        {"HttpClient alone", true, ours(false, transportLoop)},
        {"async Beast", false, [&](int n) { return plain.async(n, Mode::newConnection); }},
        {"sync Beast", false, [&](int n) { return plain.sync(n, Mode::newConnection); }},
    };
    if (tls) fresh.push_back({"async Beast, resumed", false, [&](int n) { return plain.async(n, Mode::resumed); }});
    compare(fmt::format("{}, a new connection per request (connection_reuse = false)", name), server, count, rounds,
            fresh);

    std::vector<Contender> const kept = {
        {"engine over the pool", true, ours(true, engineLoop)},
        {"HttpClient over the pool", true, ours(true, transportLoop)},
        {"async Beast, kept alive", false, [&](int n) { return plain.async(n, Mode::keptAlive); }},
        {"sync Beast, kept alive", false, [&](int n) { return plain.sync(n, Mode::keptAlive); }},
    };
    compare(fmt::format("{}, kept alive (fresh client objects over the pool)", name), server, 5 * count, rounds, kept);
}

} // namespace

int main(int argc, char** argv)
{
    int const httpCount = argc > 1 ? std::atoi(argv[1]) : 2000;
    int const httpsCount = argc > 2 ? std::atoi(argv[2]) : 300;
    int const rounds = argc > 3 ? std::atoi(argv[3]) : 3;

    std::string const doc = jsonDocument();
    auto handler = [&doc](emulator::Request const&) {
        emulator::Response response{http::status::ok, 11};
        response.set(http::field::content_type, "application/json");
        response.body() = doc;
        return response;
    };
    emulator::HttpServer plainServer(handler);
    emulator::HttpServer tlsServer(handler, emulator::TlsFiles{certFile("server.pem"), certFile("server-key.pem")});

    // The engine takes its CA bundle from the controller settings.
    BenchSettings const settings(certFile("ca.pem"));

    asio::ssl::context tls(asio::ssl::context::tls_client);
    tls.load_verify_file(certFile("ca.pem"));
    tls.set_verify_mode(asio::ssl::verify_peer);

    fmt::print("document {} bytes\n\n", doc.size());
    PlainBeast plainHttp(plainServer.port(), nullptr), plainHttps(tlsServer.port(), &tls);
    if (httpCount > 0) {
        compareProtocol("HTTP", plainServer.baseUrl() + "/doc", plainServer, httpCount, rounds, plainHttp, settings);
    }
    if (httpsCount > 0) {
        compareProtocol("HTTPS", tlsServer.baseUrl() + "/doc", tlsServer, httpsCount, rounds, plainHttps, settings);
    }
    return 0;
}
