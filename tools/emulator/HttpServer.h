// A small HTTP/1.1 (and HTTPS) server on 127.0.0.1 for the cloud emulator and the tests.
// It runs on its own thread, answers through a handler, records every request exactly as it
// came over the wire, and can be scripted to misbehave (delay, drop, stay silent, send raw
// bytes) so that clients can be tested against broken peers.
#pragma once

#include <boost/beast/http.hpp>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tavix::emulator {

namespace http = boost::beast::http;
using Request = http::request<http::string_body>;
using Response = http::response<http::string_body>;

struct CapturedRequest {
    std::string requestLine;  // e.g. "GET //v1/accounts/current HTTP/1.1"
    std::string method;
    std::string target;       // as sent: doubled slashes and query text untouched
    std::vector<std::pair<std::string, std::string>> headers;  // in the order sent
    std::string body;         // empty when the body was streamed to a file
    std::string clientCommonName{};  // CN of the TLS client certificate; empty when none was sent

    // The first header of that name (case-insensitive), or nullopt.
    std::optional<std::string> header(std::string const& name) const;
};

// What the server does with the next request instead of (or before) answering it.
struct Fault {
    enum class Kind { delay, drop, silence, raw };
    Kind kind = Kind::delay;
    std::chrono::milliseconds delay{0};
    std::string raw;

    static Fault delayBy(std::chrono::milliseconds d) { return {Kind::delay, d, {}}; }
    static Fault dropConnection() { return {Kind::drop, {}, {}}; }  // close without a reply
    static Fault neverAnswer() { return {Kind::silence, {}, {}}; }  // hold the connection, say nothing
    static Fault rawReply(std::string bytes) { return {Kind::raw, {}, std::move(bytes)}; }
};

struct TlsFiles {
    std::string certificateChain;  // PEM
    std::string privateKey;        // PEM
    std::string clientCa{};        // PEM; when set, clients are asked for a certificate it signed
};

class HttpServer {
public:
    using Handler = std::function<Response(Request const& request)>;
    // Asked with the request head; a non-empty path streams the body into that file (in
    // constant memory) and the handler then sees an empty body.
    using BodyFileChooser = std::function<std::string(http::request_header<> const& head)>;

    // Binds 127.0.0.1:`port` (0: any free port) and starts serving at once.
    explicit HttpServer(Handler handler, std::optional<TlsFiles> tls = std::nullopt, unsigned short port = 0);
    HttpServer(HttpServer const&) = delete;
    HttpServer& operator=(HttpServer const&) = delete;
    // Stops serving and joins the server thread.
    ~HttpServer();

    unsigned short port() const;
    std::string baseUrl() const;  // "http://127.0.0.1:<port>" or "https://..."

    void setBodyFileChooser(BodyFileChooser chooser);
    // Largest request body kept in memory; larger bodies get 413.
    void setBodyLimit(std::size_t bytes);

    // Faults apply to the next requests, one each, in the order pushed.
    void pushFault(Fault fault);
    void clearFaults();

    std::vector<CapturedRequest> requests() const;
    std::optional<CapturedRequest> lastRequest() const;
    void clearRequests();

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace tavix::emulator
