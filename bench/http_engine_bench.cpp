// Sequential GETs of a ~1 KB JSON document from a loopback server: each through a fresh
// `RestClient` engine (URL parsed, headers set, JSON decoded, as a service client does it), and
// the same exchanges with minimal Boost.Beast code opening a new connection per request, both
// asynchronous on an io_context (as the engine runs) and synchronous. Prints the rates and the
// engine's ratio to each, over HTTP and over HTTPS.
//
//   http_engine_bench [http-requests=2000] [https-requests=300] [rounds=3]

#include <restclient/IWebResponse.h>
#include <restclient/RestClient.h>
#include <restclient/veltrun/TavixErrorResponse.h>
#include <tools/emulator/HttpServer.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <boost/filesystem.hpp>

#include <fmt/format.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;
using namespace tavix;

std::string certFile(char const* name) { return std::string(RESTCLIENT_TEST_CERT_DIR) + "/" + name; }

std::string jsonDocument()
{
    std::string doc = R"({"id": "4f1c2a9e-63b0-4c1e-9a57-0d2e8c1b7f30", "name": "bench document", "version": 7, "links": [)";
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
    while (!done && io.run_one() > 0) {
    }
    if (!done) ++failures;
}

// Returns the number of requests that did not bring the document back.
int engineLoop(std::string const& url, int count)
{
    asio::io_context io;
    int failures = 0;
    for (int i = 0; i < count; ++i) {
        bool done = false;
        Engine client(io, [&](Doc const& doc, restclient::veltrun::BasicErrorResponse, unsigned int status,
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

// The obvious minimal Beast code: a new connection per request, closed after the answer; no
// time-outs, no URL parsing, no JSON decoding.
struct PlainBeast {
    PlainBeast(unsigned short port, asio::ssl::context* tls) : endpoint(asio::ip::make_address("127.0.0.1"), port), tls(tls)
    {
        request.set(http::field::host, "127.0.0.1:" + std::to_string(port));
        request.set(http::field::accept, "application/json");
        request.set(http::field::content_type, "application/json");
        request.set(http::field::connection, "close");
    }

    int sync(int count)
    {
        asio::io_context io;
        int failures = 0;
        for (int i = 0; i < count; ++i) {
            beast::flat_buffer buffer;
            http::response<http::string_body> response;
            boost::system::error_code ec;
            if (tls) {
                asio::ssl::stream<tcp::socket> stream(io, *tls);
                stream.set_verify_callback(asio::ssl::host_name_verification("127.0.0.1"));
                stream.next_layer().connect(endpoint, ec);
                if (!ec) stream.handshake(asio::ssl::stream_base::client, ec);
                if (!ec) http::write(stream, request, ec);
                if (!ec) http::read(stream, buffer, response, ec);
            } else {
                tcp::socket socket(io);
                socket.connect(endpoint, ec);
                if (!ec) http::write(socket, request, ec);
                if (!ec) http::read(socket, buffer, response, ec);
            }
            if (ec || response.result_int() != 200) ++failures;
        }
        return failures;
    }

    int async(int count)
    {
        asio::io_context io;
        int failures = 0;
        for (int i = 0; i < count; ++i) {
            beast::flat_buffer buffer;
            http::response<http::string_body> response;
            bool done = false;
            auto finish = [&](boost::system::error_code ec) {
                done = true;
                if (ec || response.result_int() != 200) ++failures;
            };
            auto exchange = [&](auto& stream) {
                http::async_write(stream, request, [&](boost::system::error_code ec, std::size_t) {
                    if (ec) return finish(ec);
                    http::async_read(stream, buffer, response,
                                     [&](boost::system::error_code ec, std::size_t) { finish(ec); });
                });
            };
            if (tls) {
                asio::ssl::stream<tcp::socket> stream(io, *tls);
                stream.set_verify_callback(asio::ssl::host_name_verification("127.0.0.1"));
                stream.next_layer().async_connect(endpoint, [&](boost::system::error_code ec) {
                    if (ec) return finish(ec);
                    stream.async_handshake(asio::ssl::stream_base::client, [&](boost::system::error_code ec) {
                        if (ec) return finish(ec);
                        exchange(stream);
                    });
                });
                runUntil(io, done, failures);
            } else {
                tcp::socket socket(io);
                socket.async_connect(endpoint, [&](boost::system::error_code ec) {
                    if (ec) return finish(ec);
                    exchange(socket);
                });
                runUntil(io, done, failures);
            }
        }
        io.run();
        return failures;
    }

    tcp::endpoint endpoint;
    asio::ssl::context* tls;
    http::request<http::empty_body> request{http::verb::get, "/doc", 11};
};

template <class F>
double rate(int count, F&& run)
{
    auto const start = std::chrono::steady_clock::now();
    int const failures = run(count);
    std::chrono::duration<double> const elapsed = std::chrono::steady_clock::now() - start;
    if (failures) fmt::print("  {} of {} requests failed\n", failures, count);
    return count / elapsed.count();
}

// Best of `rounds` for each, the contenders taking turns so that drift hits them alike.
void compare(char const* name, std::string const& url, int count, int rounds, PlainBeast& plain)
{
    std::function<int(int)> const contenders[] = {[&](int n) { return engineLoop(url, n); },
                                                   [&](int n) { return transportLoop(url, n); },
                                                   [&](int n) { return plain.async(n); },
                                                   [&](int n) { return plain.sync(n); }};
    double best[4] = {};
    for (auto const& run : contenders) run(count / 10 + 1);  // warm up: TLS context, allocator, server thread
    for (int round = 0; round < rounds; ++round) {
        for (int i = 0; i < 4; ++i) best[i] = std::max(best[i], rate(count, contenders[i]));
    }
    fmt::print("{}: {} sequential GETs, best of {}\n", name, count, rounds);
    fmt::print("  engine (RestClient)     {:8.0f} req/s\n", best[0]);
    fmt::print("  HttpClient alone        {:8.0f} req/s   (no JSON decoding)\n", best[1]);
    fmt::print("  async Beast             {:8.0f} req/s   engine/async {:.3f}   HttpClient/async {:.3f}\n", best[2],
               best[0] / best[2], best[1] / best[2]);
    fmt::print("  sync Beast              {:8.0f} req/s   engine/sync  {:.3f}   HttpClient/sync  {:.3f}\n", best[3],
               best[0] / best[3], best[1] / best[3]);
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
    auto const settings = boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("bench-%%%%%%.conf");
    std::ofstream(settings.string()) << "ca_file = " << certFile("ca.pem") << "\n";
    ::setenv("TAVIX_CONTROLLER_CONFIG", settings.c_str(), 1);

    asio::ssl::context tls(asio::ssl::context::tls_client);
    tls.load_verify_file(certFile("ca.pem"));
    tls.set_verify_mode(asio::ssl::verify_peer);

    fmt::print("document {} bytes\n", doc.size());
    PlainBeast plainHttp(plainServer.port(), nullptr), plainHttps(tlsServer.port(), &tls);
    if (httpCount > 0) compare("HTTP", plainServer.baseUrl() + "/doc", httpCount, rounds, plainHttp);
    if (httpsCount > 0) compare("HTTPS", tlsServer.baseUrl() + "/doc", httpsCount, rounds, plainHttps);

    boost::filesystem::remove(settings);
    return 0;
}
