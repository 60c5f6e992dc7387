// One accepted connection of `HttpServer`: reads requests (keep-alive), records them, applies
// the scripted faults and writes the handler's answers. Private to HttpServer.cpp.
#pragma once

#include <tools/emulator/HttpServer.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/buffers_range.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

#include <unistd.h>

#include <array>
#include <deque>
#include <limits>
#include <mutex>
#include <optional>
#include <tuple>
#include <type_traits>

namespace tavix::emulator::detail {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;
using boost::system::error_code;

// What the connections share with the server object; guarded by `mutex` except `handler`,
// which only the server thread calls.
struct ServerState {
    HttpServer::Handler handler;
    mutable std::mutex mutex;
    std::deque<Fault> faults;
    HttpServer::FaultSource faultSource;
    std::deque<CapturedRequest> requests;
    CaptureLimits captureLimits;
    std::size_t capturedBytes = 0;
    HttpServer::BodyPlanner bodyPlanner;
    std::size_t bodyLimit = 64 * 1024 * 1024;
    ConnectionCounts counts;
    std::chrono::milliseconds idleTimeout{0};
    std::chrono::milliseconds readTimeout{30000};

    // Under the lock: keeps what was captured within its limits, the oldest going first.
    void capture(CapturedRequest captured)
    {
        if (captured.body.size() > captureLimits.bodyBytes) captured.body.resize(captureLimits.bodyBytes);
        capturedBytes += captured.body.size();
        requests.push_back(std::move(captured));
        trimCaptured();
    }
    void trimCaptured()
    {
        while (!requests.empty()
               && (requests.size() > captureLimits.requests || capturedBytes > captureLimits.bodyBytes)) {
            capturedBytes -= requests.front().body.size();
            requests.pop_front();
        }
    }

    std::optional<Fault> takeFault(Request const& request)
    {
        std::unique_lock<std::mutex> lock(mutex);
        if (faults.empty()) {
            HttpServer::FaultSource const source = faultSource;
            lock.unlock();
            return source ? source(request) : std::nullopt;
        }
        Fault fault = std::move(faults.front());
        faults.pop_front();
        return fault;
    }
};

std::string peerCommonName(SSL* ssl);

// A Beast body that hands each piece of a request body to a sink (none: dropped).
struct SinkBody {
    using value_type = BodySink*;

    class reader {
    public:
        template <bool isRequest, class Fields>
        reader(http::header<isRequest, Fields>&, value_type& sink) : m_sink(sink)
        {}
        void init(boost::optional<std::uint64_t> const&, error_code& ec) { ec = {}; }
        template <class ConstBufferSequence>
        std::size_t put(ConstBufferSequence const& buffers, error_code& ec)
        {
            std::size_t total = 0;
            for (auto const buffer : boost::beast::buffers_range_ref(buffers)) {
                if (m_sink) m_sink->write(buffer.data(), buffer.size());
                total += buffer.size();
            }
            ec = {};
            return total;
        }
        void finish(error_code& ec) { ec = {}; }

    private:
        value_type& m_sink; // the message's, which may be set after the parser is made
    };
};

template <class Stream>
class ServerSession : public std::enable_shared_from_this<ServerSession<Stream>> {
    static constexpr bool isTls = !std::is_same_v<Stream, tcp::socket>;
    // Closing the connection waits this long at most for the peer to finish its side.
    static constexpr std::chrono::seconds lingerTime{1};
    static constexpr std::uint64_t noLimit = std::numeric_limits<std::uint64_t>::max();
    static constexpr std::size_t streamChunk = 1024 * 1024;
    static constexpr std::size_t memoryChunk = 64 * 1024;

public:
    ServerSession(ServerState& state, Stream stream)
        : m_state(state), m_stream(std::move(stream)), m_timer(m_stream.get_executor())
    {}
    ServerSession(ServerSession const&) = delete;
    ServerSession& operator=(ServerSession const&) = delete;

    ~ServerSession()
    {
        {
            std::lock_guard<std::mutex> lock(m_state.mutex);
            ++m_state.counts.closed;
        }
        m_sink.reset();
        if (!m_ownedFile.empty()) ::unlink(m_ownedFile.c_str());
    }

    void start()
    {
        if constexpr (isTls) {
            closeAfter(readTimeout());
            m_stream.async_handshake(asio::ssl::stream_base::server, [self = this->shared_from_this()](error_code ec) {
                self->m_timer.cancel();
                if (ec) return self->socket().close();
                self->countHandshake();
                self->m_clientName = peerCommonName(self->m_stream.native_handle());
                self->readHead();
            });
        } else {
            readHead();
        }
    }

private:
    void countHandshake()
    {
        bool const resumed = SSL_session_reused(m_stream.native_handle());
        std::lock_guard<std::mutex> lock(m_state.mutex);
        ++(resumed ? m_state.counts.resumedHandshakes : m_state.counts.fullHandshakes);
    }

    tcp::socket& socket()
    {
        if constexpr (isTls) return m_stream.next_layer();
        else return m_stream;
    }

    std::chrono::milliseconds readTimeout() const
    {
        std::lock_guard<std::mutex> lock(m_state.mutex);
        return m_state.readTimeout;
    }

    // A peer that sends nothing, or stops sending, must not hold the connection for ever.
    void closeAfter(std::chrono::milliseconds timeout)
    {
        m_timer.expires_after(timeout);
        m_timer.async_wait([self = this->shared_from_this()](error_code ec) {
            if (!ec) self->socket().close();
        });
    }

    void readHead(std::optional<std::chrono::milliseconds> timeout = std::nullopt)
    {
        closeAfter(timeout.value_or(readTimeout()));
        m_head.emplace();
        // Checked against the server's limit once the head is in. (Not boost::none: Beast 1.74
        // compares a Content-Length with an unset limit as if the limit were zero.)
        m_head->body_limit(noLimit);
        http::async_read_header(m_stream, m_buffer, *m_head,
                                [self = this->shared_from_this()](error_code ec, std::size_t) { self->onHead(ec); });
    }

    // Between requests, as servers do: a connection idle too long is closed.
    void readNextHead()
    {
        std::chrono::milliseconds idleTimeout;
        {
            std::lock_guard<std::mutex> lock(m_state.mutex);
            idleTimeout = m_state.idleTimeout;
        }
        readHead(idleTimeout.count() > 0 ? std::optional(idleTimeout) : std::nullopt);
    }

    void onHead(error_code ec)
    {
        m_timer.cancel();
        if (ec) return failRead(ec);
        std::size_t limit;
        HttpServer::BodyPlanner planner;
        {
            std::lock_guard<std::mutex> lock(m_state.mutex);
            limit = m_state.bodyLimit;
            planner = m_state.bodyPlanner;
        }
        BodyPlan plan;
        try {
            if (planner) plan = planner(m_head->get().base());
        } catch (std::exception const& e) {
            plan = BodyPlan{};
            plan.answer.emplace(http::status::internal_server_error, 11);
            plan.answer->body() = e.what();
        }
        bool const expectContinue = boost::beast::iequals(m_head->get()[http::field::expect], "100-continue");
        if (plan.answer) {
            m_answer = std::move(plan.answer);
            m_streamed.emplace(std::move(*m_head));
            m_streamed->body_limit(noLimit);
            if (!expectContinue) return readBody(*m_streamed, streamChunk);
            // The body stays unread, so the connection can't carry another request.
            m_answer->keep_alive(false);
            return onBody({});
        }
        if (!plan.file.empty()) {
            std::string openError;
            m_sink.emplace();
            m_ownedFile = plan.finish ? plan.file : std::string();
            if (!m_sink->open(plan.file, openError)) return replyAndClose(http::status::internal_server_error);
            m_finish = std::move(plan.finish);
            m_streamed.emplace(std::move(*m_head));
            m_streamed->body_limit(noLimit);
            m_streamed->get().body() = &*m_sink;
            return continueThen(expectContinue, [this] { readBody(*m_streamed, streamChunk); });
        }
        if (m_head->content_length() && *m_head->content_length() > limit) {
            return replyAndClose(http::status::payload_too_large);
        }
        m_body.emplace(std::move(*m_head));
        m_body->body_limit(limit);
        continueThen(expectContinue, [this] { readBody(*m_body, memoryChunk); });
    }

    template <class Then>
    void continueThen(bool expectContinue, Then then)
    {
        if (!expectContinue) return then();
        m_continue.emplace(http::status::continue_, 11);
        http::async_write(m_stream, *m_continue, [self = this->shared_from_this(), then](error_code ec, std::size_t) {
            if (ec) return self->socket().close();
            then();
        });
    }

    // Feeds the parser from reads of up to `chunk` bytes: Beast's own reads take 512 bytes at a
    // time after a small head, which makes a large upload CPU-bound on system calls.
    template <class Parser>
    void readBody(Parser& parser, std::size_t chunk)
    {
        parser.eager(true);
        while (m_buffer.size() > 0 && !parser.is_done()) {
            error_code ec;
            std::size_t const used = parser.put(m_buffer.data(), ec);
            m_buffer.consume(used);
            if (ec == http::error::need_more || (!ec && used == 0)) break;
            if (ec) return onBody(ec);
        }
        if (parser.is_done()) return onBody({});
        std::size_t const room = chunk > m_buffer.size() ? chunk - m_buffer.size() : chunk;
        // Per read: a slow body that moves is fine, one that stops is not.
        closeAfter(readTimeout());
        m_stream.async_read_some(m_buffer.prepare(room),
                                 [self = this->shared_from_this(), &parser, chunk](error_code ec, std::size_t n) {
                                     self->m_timer.cancel();
                                     self->m_buffer.commit(n);
                                     if (ec == asio::error::eof) {
                                         parser.put_eof(ec);
                                         if (!ec) return self->onBody({});
                                         return self->failRead(http::error::partial_message);
                                     }
                                     if (ec) return self->failRead(ec);
                                     self->readBody(parser, chunk);
                                 });
    }

    void onBody(error_code ec)
    {
        if (ec == http::error::body_limit) return replyAndClose(http::status::payload_too_large);
        if (ec) return failRead(ec);
        Request request;
        if (m_body) {
            request = m_body->release();
        } else {
            request = Request(std::move(m_streamed->get().base()));
        }
        m_body.reset();
        m_streamed.reset();
        if (m_buffer.capacity() > memoryChunk && m_buffer.size() == 0) m_buffer.shrink_to_fit();
        record(request);

        std::optional<Fault> fault = m_state.takeFault(request);
        if (!fault) return answer(std::move(request));
        switch (fault->kind) {
        case Fault::Kind::delay:
            m_timer.expires_after(fault->delay);
            m_timer.async_wait([self = this->shared_from_this(), request = std::move(request)](error_code) mutable {
                self->answer(std::move(request));
            });
            return;
        case Fault::Kind::drop: return socket().close();
        case Fault::Kind::silence: return holdSilently();
        case Fault::Kind::raw:
            m_raw = std::move(fault->raw);
            asio::async_write(m_stream, asio::buffer(m_raw),
                              [self = this->shared_from_this()](error_code ec, std::size_t) {
                                  if (ec) return self->socket().close();
                                  self->closeGracefully();
                              });
            return;
        }
    }

    void record(Request const& request)
    {
        CapturedRequest captured;
        captured.method = std::string(request.method_string());
        captured.target = std::string(request.target());
        captured.requestLine = captured.method + " " + captured.target + " HTTP/"
            + std::to_string(request.version() / 10) + "." + std::to_string(request.version() % 10);
        for (auto const& field : request) {
            captured.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
        }
        captured.body = request.body();
        captured.bodySize = request.body().size();
        captured.clientCommonName = m_clientName;
        std::lock_guard<std::mutex> lock(m_state.mutex);
        m_state.capture(std::move(captured));
    }

    void answer(Request request)
    {
        Response response;
        try {
            response = respond(request);
        } catch (std::exception const& e) {
            response = Response(http::status::internal_server_error, 11);
            response.body() = e.what();
        }
        if (response.find(kDropAnswerField) != response.end()) return socket().close();
        response.version(request.version());
        bool const keepAlive = request.keep_alive() && response.keep_alive();
        response.keep_alive(keepAlive);
        if (auto const file = response.find(kBodyFileField); file != response.end()) {
            std::string const path(file->value());
            response.erase(kBodyFileField);
            if (request.method() != http::verb::head) return sendFile(std::move(response), path, keepAlive);
        }
        if (!response.has_content_length() && !response.chunked()) response.prepare_payload();
        if (request.method() == http::verb::head) response.body().clear();
        send(std::move(response), keepAlive);
    }

    // The answer's head with the file as its body, read in pieces as the socket takes them.
    void sendFile(Response const& head, std::string const& path, bool keepAlive)
    {
        http::file_body::value_type body;
        error_code ec;
        body.open(path.c_str(), boost::beast::file_mode::scan, ec);
        if (ec) return replyAndClose(http::status::internal_server_error);
        m_fileResponse.emplace(std::piecewise_construct, std::make_tuple(std::move(body)),
                               std::make_tuple(head.result(), head.version()));
        for (auto const& field : head) {
            if (field.name() != http::field::content_length) m_fileResponse->set(field.name_string(), field.value());
        }
        m_fileResponse->keep_alive(keepAlive);
        m_fileResponse->prepare_payload();
        http::async_write(m_stream, *m_fileResponse,
                          [self = this->shared_from_this(), keepAlive](error_code ec, std::size_t) {
                              self->m_fileResponse.reset();
                              if (ec) return self->socket().close();
                              if (keepAlive) return self->readNextHead();
                              self->closeGracefully();
                          });
    }

    Response respond(Request const& request)
    {
        if (m_answer) {
            Response response = std::move(*m_answer);
            m_answer.reset();
            return response;
        }
        if (!m_sink) return m_state.handler(request);
        StreamedBody body;
        std::string error;
        bool const written = m_sink->finish(body, error);
        m_sink.reset();
        if (!m_finish) return m_state.handler(request);
        auto finish = std::move(m_finish);
        m_finish = nullptr;
        m_ownedFile.clear(); // now the finisher's
        if (!written) {
            ::unlink(body.path.c_str());
            Response failed(http::status::internal_server_error, request.version());
            failed.body() = "Could not store the body: " + error;
            return failed;
        }
        return finish(request, body);
    }

    void replyAndClose(http::status status)
    {
        Response response(status, 11);
        response.keep_alive(false);
        response.prepare_payload();
        send(std::move(response), false);
    }

    void send(Response response, bool keepAlive)
    {
        m_response = std::move(response);
        http::async_write(m_stream, m_response,
                          [self = this->shared_from_this(), keepAlive](error_code ec, std::size_t) {
                              if (ec) return self->socket().close();
                              if (keepAlive) return self->readNextHead();
                              self->closeGracefully();
                          });
    }

    // The peer closing, or bytes that are not HTTP (answered with 400).
    void failRead(error_code ec)
    {
        if (ec.category() == make_error_code(http::error::end_of_stream).category() && ec != http::error::end_of_stream
            && ec != http::error::partial_message) {
            return replyAndClose(http::status::bad_request);
        }
        socket().close();
    }

    // Says nothing until the peer goes away or the server stops.
    void holdSilently()
    {
        socket().async_read_some(asio::buffer(m_drain), [self = this->shared_from_this()](error_code ec, std::size_t) {
            if (ec) return self->socket().close();
            self->holdSilently();
        });
    }

    // Ends our side, then reads what the peer still sends (an unread request body, say) so that
    // closing does not reset the connection under a reply it has not read yet.
    void closeGracefully()
    {
        m_timer.expires_after(lingerTime);
        m_timer.async_wait([self = this->shared_from_this()](error_code ec) {
            if (!ec) self->socket().close();
        });
        if constexpr (isTls) {
            m_stream.async_shutdown([self = this->shared_from_this()](error_code) { self->drain(); });
        } else {
            error_code ignored;
            socket().shutdown(tcp::socket::shutdown_send, ignored);
            drain();
        }
    }

    void drain()
    {
        socket().async_read_some(asio::buffer(m_drain), [self = this->shared_from_this()](error_code ec, std::size_t) {
            if (!ec) return self->drain();
            self->m_timer.cancel();
            self->socket().close();
        });
    }

    ServerState& m_state;
    Stream m_stream;
    asio::steady_timer m_timer;
    boost::beast::flat_buffer m_buffer;
    std::optional<http::request_parser<http::empty_body>> m_head;
    std::optional<http::request_parser<http::string_body>> m_body;
    std::optional<http::request_parser<SinkBody>> m_streamed;
    std::optional<BodySink> m_sink;
    std::function<Response(Request const&, StreamedBody const&)> m_finish;
    std::string m_ownedFile;          // a streamed body nobody has taken yet
    std::optional<Response> m_answer; // decided on the head
    std::optional<http::response<http::empty_body>> m_continue;
    Response m_response;
    std::optional<http::response<http::file_body>> m_fileResponse;
    std::string m_raw;
    std::string m_clientName;
    std::array<char, 4096> m_drain;
};

} // namespace tavix::emulator::detail
