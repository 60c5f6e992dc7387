// One TCP connection, plain or TLS, that carries HTTP exchanges one after the other: made for
// one exchange, it may go idle in the connection pool of its io_context and serve the next
// exchange to the same route. It is an object apart from the exchange so that a client can
// close it (`HttpClient::close`) while its exchange runs; the lease number tells a client
// whether the connection is still its own. All its handlers run on its strand, so that a
// time-out or a close never races an operation even when several threads run the io_context.
#pragma once

#include <tavix/net/http/detail/TlsContextCache.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/io_context_strand.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/core/flat_buffer.hpp>

#include <atomic>
#include <cstdint>
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

    // `tls` null: a plain connection. `route` names what it may be reused for (scheme, host,
    // port and TLS settings).
    Connection(boost::asio::io_context& io, std::shared_ptr<TlsClientContext> tls, std::string route);

    Strand& strand() { return m_strand; }
    Socket& socket();
    TlsStream* tls() { return std::get_if<TlsStream>(&m_stream); }
    TlsClientContext* tlsContext() { return m_tlsContext.get(); }
    std::string const& route() const { return m_route; }
    // What was read and not yet parsed; kept with the connection so that an exchange allocates
    // none. Empty between exchanges: a connection with bytes left over is never reused.
    boost::beast::flat_buffer& buffer() { return m_buffer; }

    // Calls `f` with the stream that carries HTTP: the socket, or the TLS stream over it.
    template <class F>
    decltype(auto) withStream(F&& f)
    {
        return std::visit(std::forward<F>(f), m_stream);
    }

    // TLS only: SNI (for a name, not an IP literal) and the check of the peer's certificate
    // against `host`, before the handshake.
    void expectPeer(std::string const& host);

    // A new, unconnected stream in place of the old one, on the same strand: the second try of
    // an exchange whose reused connection had died.
    void reopen();

    // Idle and still usable: open, and nothing to read (no data, no end of stream) while no
    // exchange runs on it. Called without the strand, on a connection nobody uses.
    bool idleAndUsable();

    // Changes when the connection goes back to the pool: a client whose lease is no longer
    // current must leave it alone.
    std::uint64_t lease() const { return m_lease; }
    void newLease() { ++m_lease; }

    // At once; the pending operations end with operation_aborted, and no exchange starts on a
    // closed connection.
    void close();
    bool closed() const { return m_closed; }
    // Says goodbye first (TLS close_notify), for at most a second, then closes.
    void shutdown();

private:
    using Stream = std::variant<Socket, TlsStream>;

    Strand m_strand;
    std::shared_ptr<TlsClientContext> m_tlsContext; // outlives the TLS stream
    std::string m_route;
    Stream m_stream;
    boost::beast::flat_buffer m_buffer;
    std::atomic<std::uint64_t> m_lease{0};
    bool m_closed = false;
};

} // namespace tavix::net::http
