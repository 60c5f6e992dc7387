#include <tavix/net/http/detail/ErrorCategories.h>

#include <tavix/net/http/detail/Connection.h>

#include <boost/asio/bind_executor.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ssl/host_name_verification.hpp>
#include <boost/asio/steady_timer.hpp>

#include <sys/socket.h>

#include <cerrno>

namespace tavix::net::http {

namespace asio = boost::asio;
using boost::system::error_code;

Connection::Connection(asio::io_context& io, std::shared_ptr<TlsClientContext> tls, std::string route)
    : m_strand(io), m_tlsContext(std::move(tls)), m_route(std::move(route)),
      m_stream(m_tlsContext ? Stream(std::in_place_type<TlsStream>, io, m_tlsContext->context())
                            : Stream(std::in_place_type<Socket>, io))
{
    m_buffer.reserve(4096); // room for a typical answer in one read
}

Connection::Socket& Connection::socket()
{
    if (auto* stream = tls()) return stream->next_layer();
    return std::get<Socket>(m_stream);
}

void Connection::expectPeer(std::string const& host)
{
    TlsStream* stream = tls();
    if (!stream) return;
    error_code notAnAddress;
    asio::ip::make_address(host, notAnAddress);
    // SNI carries names only; an IP literal is checked against the certificate's IP entries.
    if (notAnAddress) SSL_set_tlsext_host_name(stream->native_handle(), host.c_str());
    stream->set_verify_callback(asio::ssl::host_name_verification(host));
}

void Connection::reopen()
{
    error_code ignored;
    socket().close(ignored);
    if (m_tlsContext) m_stream.emplace<TlsStream>(m_strand.context(), m_tlsContext->context());
    else m_stream.emplace<Socket>(m_strand.context());
}

bool Connection::idleAndUsable()
{
    if (m_closed || !socket().is_open()) return false;
    // A peer that closed an idle connection has sent its FIN (and, over TLS, a close_notify):
    // either shows as something to read.
    char byte;
    ssize_t const n = ::recv(socket().native_handle(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
}

void Connection::close()
{
    m_closed = true;
    error_code ignored;
    socket().close(ignored);
}

void Connection::shutdown()
{
    TlsStream* stream = tls();
    if (!stream || !socket().is_open()) {
        error_code ignored;
        socket().shutdown(Socket::shutdown_both, ignored);
        return close();
    }
    // The peer may never answer our close_notify: the timer bounds the wait.
    auto timer = std::make_shared<asio::steady_timer>(m_strand.context(), std::chrono::seconds(1));
    timer->async_wait(asio::bind_executor(m_strand, [self = shared_from_this()](error_code ec) {
        if (!ec) self->close();
    }));
    stream->async_shutdown(asio::bind_executor(m_strand, [self = shared_from_this(), timer](error_code) {
        timer->cancel();
        self->close();
    }));
}

} // namespace tavix::net::http
