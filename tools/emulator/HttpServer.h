// A small HTTP/1.1 (and HTTPS) server on 127.0.0.1 for the cloud emulator and the tests.
// It runs on its own thread, answers through a handler, records every request exactly as it
// came over the wire, and can be scripted to misbehave (delay, drop, stay silent, send raw
// bytes) so that clients can be tested against broken peers. A body planner may stream chosen
// request bodies to disk (constant memory, MD5 on the way) or answer on the head alone.
#pragma once

#include <tools/emulator/BodySink.h>

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
    std::string requestLine; // e.g. "GET //v1/accounts/current HTTP/1.1"
    std::string method;
    std::string target;                                       // as sent: doubled slashes and query text untouched
    std::vector<std::pair<std::string, std::string>> headers; // in the order sent
    std::string body;               // empty when streamed to a file; cut short past the capture budget
    std::string clientCommonName{}; // CN of the TLS client certificate; empty when none was sent
    std::size_t bodySize = 0;       // the body's whole length as received

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
    static Fault dropConnection() { return {Kind::drop, {}, {}}; } // close without a reply
    static Fault neverAnswer() { return {Kind::silence, {}, {}}; } // hold the connection, say nothing
    static Fault rawReply(std::string bytes) { return {Kind::raw, {}, std::move(bytes)}; }
};

// How much of what it was sent the server keeps for inspection: the latest requests, their
// bodies within a byte budget (a body larger than the whole budget is kept cut to it).
struct CaptureLimits {
    std::size_t requests = 1000;
    std::size_t bodyBytes = 16 * 1024 * 1024;
};

// A handler's answer that carries this field has its body streamed from the file it names (in
// constant memory) instead of its string body; the field itself is not sent.
inline constexpr char const* kBodyFileField = "X-Emulator-Body-File";
// A handler's answer that carries this field is never sent: the connection closes instead, as
// when a server dies after doing the work and before saying so.
inline constexpr char const* kDropAnswerField = "X-Emulator-Drop-Answer";

struct TlsFiles {
    std::string certificateChain;          // PEM
    std::string privateKey;                // PEM
    std::string clientCa{};                // PEM; when set, clients are asked for a certificate it signed
    bool requireClientCertificate = false; // with clientCa: a client without one fails the handshake
};

// How the server takes the body of one request, decided on its head.
struct BodyPlan {
    // Set: the request's answer, given without keeping its body. After "Expect: 100-continue"
    // the body is not asked for and the connection closes; otherwise it is read and dropped.
    std::optional<Response> answer;
    // Non-empty: the body is streamed into this file (constant memory, MD5 on the way).
    std::string file;
    // With `file`: answers instead of the handler once the body is in. A body that never
    // reaches it (the connection broke, a fault) is removed. Unset: the handler answers, seeing
    // an empty body, and the file is the caller's.
    std::function<Response(Request const& request, StreamedBody const& body)> finish;
};

// What the clients cost the server: TCP connections accepted (and since closed), TLS handshakes
// done in full and abbreviated (a resumed session).
struct ConnectionCounts {
    std::size_t connections = 0;
    std::size_t closed = 0;
    std::size_t fullHandshakes = 0;
    std::size_t resumedHandshakes = 0;
};

class HttpServer {
public:
    using Handler = std::function<Response(Request const& request)>;
    using BodyPlanner = std::function<BodyPlan(http::request_header<> const& head)>;
    // Asked for a fault for each request that no pushed fault takes; nullopt: none.
    using FaultSource = std::function<std::optional<Fault>(Request const& request)>;
    // Asked with the request head; a non-empty path streams the body into that file (in
    // constant memory) and the handler then sees an empty body.
    using BodyFileChooser = std::function<std::string(http::request_header<> const& head)>;

    // Binds `address`:`port` (0: any free port) and starts serving at once.
    explicit HttpServer(Handler handler, std::optional<TlsFiles> tls = std::nullopt, unsigned short port = 0,
                        std::string const& address = "127.0.0.1");
    HttpServer(HttpServer const&) = delete;
    HttpServer& operator=(HttpServer const&) = delete;
    // Stops serving and joins the server thread.
    ~HttpServer();

    unsigned short port() const;
    std::string baseUrl() const; // "http://127.0.0.1:<port>" or "https://..."

    void setBodyPlanner(BodyPlanner planner);
    void setBodyFileChooser(BodyFileChooser chooser);
    // Largest request body kept in memory; larger bodies get 413.
    void setBodyLimit(std::size_t bytes);
    // A kept-alive connection that brings no new request within this time is closed (0: never).
    void setIdleTimeout(std::chrono::milliseconds timeout);
    // A TLS handshake or a request head that takes longer than this, or a body that stops
    // moving for this long, closes the connection (default 30 s).
    void setReadTimeout(std::chrono::milliseconds timeout);
    void setCaptureLimits(CaptureLimits limits);

    // Faults apply to the next requests, one each, in the order pushed.
    void pushFault(Fault fault);
    void clearFaults();
    void setFaultSource(FaultSource source);

    ConnectionCounts connectionCounts() const;

    std::vector<CapturedRequest> requests() const;
    std::optional<CapturedRequest> lastRequest() const;
    void clearRequests();

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace tavix::emulator
