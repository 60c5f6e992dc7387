// One accepted connection of `HttpServer`: reads requests (keep-alive), records them, applies
// the scripted faults and writes the handler's answers. Private to HttpServer.cpp.
#pragma once

#include <tools/emulator/HttpServer.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

#include <array>
#include <deque>
#include <limits>
#include <mutex>
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
    std::vector<CapturedRequest> requests;
    HttpServer::BodyFileChooser bodyFileChooser;
    std::size_t bodyLimit = 64 * 1024 * 1024;

    std::optional<Fault> takeFault()
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (faults.empty()) return std::nullopt;
        Fault fault = std::move(faults.front());
        faults.pop_front();
        return fault;
    }
};

std::string peerCommonName(SSL* ssl);

template <class Stream>
class ServerSession : public std::enable_shared_from_this<ServerSession<Stream>> {
    static constexpr bool isTls = !std::is_same_v<Stream, tcp::socket>;
    // Closing the connection waits this long at most for the peer to finish its side.
    static constexpr std::chrono::seconds lingerTime{1};
    static constexpr std::uint64_t noLimit = std::numeric_limits<std::uint64_t>::max();

public:
    ServerSession(ServerState& state, Stream stream)
        : m_state(state), m_stream(std::move(stream)), m_timer(m_stream.get_executor())
    {}

    void start()
    {
        if constexpr (isTls) {
            m_stream.async_handshake(asio::ssl::stream_base::server, [self = this->shared_from_this()](error_code ec) {
                if (ec) return self->socket().close();
                self->m_clientName = peerCommonName(self->m_stream.native_handle());
                self->readHead();
            });
        } else {
            readHead();
        }
    }

private:
    tcp::socket& socket()
    {
        if constexpr (isTls) return m_stream.next_layer();
        else return m_stream;
    }

    void readHead()
    {
        m_head.emplace();
        // Checked against the server's limit once the head is in. (Not boost::none: Beast 1.74
        // compares a Content-Length with an unset limit as if the limit were zero.)
        m_head->body_limit(noLimit);
        http::async_read_header(m_stream, m_buffer, *m_head,
                                [self = this->shared_from_this()](error_code ec, std::size_t) { self->onHead(ec); });
    }

    void onHead(error_code ec)
    {
        if (ec) return failRead(ec);
        auto const& head = m_head->get();
        std::size_t limit;
        HttpServer::BodyFileChooser chooser;
        {
            std::lock_guard<std::mutex> lock(m_state.mutex);
            limit = m_state.bodyLimit;
            chooser = m_state.bodyFileChooser;
        }
        std::string const file = chooser ? chooser(head.base()) : std::string();
        if (file.empty() && m_head->content_length() && *m_head->content_length() > limit) {
            return replyAndClose(http::status::payload_too_large);
        }
        if (file.empty()) {
            m_body.emplace(std::move(*m_head));
            m_body->body_limit(limit);
        } else {
            m_fileBody.emplace(std::move(*m_head));
            m_fileBody->body_limit(noLimit);
            error_code openError;
            m_fileBody->get().body().open(file.c_str(), boost::beast::file_mode::write, openError);
            if (openError) return replyAndClose(http::status::internal_server_error);
        }
        auto const expect = m_body ? m_body->get()[http::field::expect] : m_fileBody->get()[http::field::expect];
        if (boost::beast::iequals(expect, "100-continue")) {
            m_continue.emplace(http::status::continue_, 11);
            return http::async_write(m_stream, *m_continue, [self = this->shared_from_this()](error_code ec, std::size_t) {
                if (ec) return self->socket().close();
                self->readBody();
            });
        }
        readBody();
    }

    void readBody()
    {
        auto done = [self = this->shared_from_this()](error_code ec, std::size_t) { self->onBody(ec); };
        if (m_body) http::async_read(m_stream, m_buffer, *m_body, std::move(done));
        else http::async_read(m_stream, m_buffer, *m_fileBody, std::move(done));
    }

    void onBody(error_code ec)
    {
        if (ec == http::error::body_limit) return replyAndClose(http::status::payload_too_large);
        if (ec) return failRead(ec);
        Request request;
        if (m_body) {
            request = m_body->release();
        } else {
            request = Request(std::move(m_fileBody->get().base()));
            m_fileBody->get().body().close();
        }
        m_body.reset();
        m_fileBody.reset();
        record(request);

        std::optional<Fault> fault = m_state.takeFault();
        if (!fault) return answer(std::move(request));
        switch (fault->kind) {
        case Fault::Kind::delay:
            m_timer.expires_after(fault->delay);
            m_timer.async_wait([self = this->shared_from_this(), request = std::move(request)](error_code) mutable {
                self->answer(std::move(request));
            });
            return;
        case Fault::Kind::drop:
            return socket().close();
        case Fault::Kind::silence:
            return holdSilently();
        case Fault::Kind::raw:
            m_raw = std::move(fault->raw);
            asio::async_write(m_stream, asio::buffer(m_raw), [self = this->shared_from_this()](error_code ec, std::size_t) {
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
        captured.requestLine = captured.method + " " + captured.target + " HTTP/" +
                               std::to_string(request.version() / 10) + "." + std::to_string(request.version() % 10);
        for (auto const& field : request) {
            captured.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
        }
        captured.body = request.body();
        captured.clientCommonName = m_clientName;
        std::lock_guard<std::mutex> lock(m_state.mutex);
        m_state.requests.push_back(std::move(captured));
    }

    void answer(Request request)
    {
        Response response;
        try {
            response = m_state.handler(request);
        } catch (std::exception const& e) {
            response = Response(http::status::internal_server_error, 11);
            response.body() = e.what();
        }
        response.version(request.version());
        bool const keepAlive = request.keep_alive() && response.keep_alive();
        response.keep_alive(keepAlive);
        if (!response.has_content_length() && !response.chunked()) response.prepare_payload();
        if (request.method() == http::verb::head) response.body().clear();
        send(std::move(response), keepAlive);
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
        http::async_write(m_stream, m_response, [self = this->shared_from_this(), keepAlive](error_code ec, std::size_t) {
            if (ec) return self->socket().close();
            if (keepAlive) return self->readHead();
            self->closeGracefully();
        });
    }

    // The peer closing, or bytes that are not HTTP (answered with 400).
    void failRead(error_code ec)
    {
        if (ec.category() == make_error_code(http::error::end_of_stream).category() && ec != http::error::end_of_stream &&
            ec != http::error::partial_message) {
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
    std::optional<http::request_parser<http::file_body>> m_fileBody;
    std::optional<http::response<http::empty_body>> m_continue;
    Response m_response;
    std::string m_raw;
    std::string m_clientName;
    std::array<char, 4096> m_drain;
};

} // namespace tavix::emulator::detail
