// One TCP connection, plain or TLS, for one HTTP exchange: each exchange opens its own and asks
// the server to close it after the response ("Connection: close"); nothing is reused yet. It is
// an object apart from the exchange so that its client can close it (`HttpClient::close`) while
// the exchange runs or after it. All its handlers run on its strand, so that a time-out or a
// close never races an operation even when several threads run the io_context.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/io_context_strand.hpp>

#include <memory>
#include <string>
#include <variant>

namespace tavix::net::http {

class Connection : public std::enable_shared_from_this<Connection> {
public:
    // The classic strand runs a completion at once when the strand is free, where the newer
    // one would post it: a trip through the io_context saved on every stage of an exchange.
    using Strand = boost::asio::io_context::strand;
    using Socket = boost::asio::ip::tcp::socket;
    using TlsStream = boost::asio::ssl::stream<Socket>;

    // `tls` null: a plain connection.
    Connection(boost::asio::io_context& io, std::shared_ptr<boost::asio::ssl::context> tls);

    Strand& strand() { return m_strand; }
    Socket& socket();
    TlsStream* tls() { return std::get_if<TlsStream>(&m_stream); }

    // Calls `f` with the stream that carries HTTP: the socket, or the TLS stream over it.
    template <class F>
    decltype(auto) withStream(F&& f)
    {
        return std::visit(std::forward<F>(f), m_stream);
    }

    // TLS only: SNI (for a name, not an IP literal) and the check of the peer's certificate
    // against `host`, before the handshake.
    void expectPeer(std::string const& host);

    // At once; the pending operations end with operation_aborted, and no exchange starts on a
    // closed connection.
    void close();
    bool closed() const { return m_closed; }
    // Says goodbye first (TLS close_notify), for at most a second, then closes.
    void shutdown();

private:
    Strand m_strand;
    std::shared_ptr<boost::asio::ssl::context> m_tlsContext;  // outlives the TLS stream
    using Stream = std::variant<Socket, TlsStream>;
    Stream m_stream;
    bool m_closed = false;
};

} // namespace tavix::net::http
