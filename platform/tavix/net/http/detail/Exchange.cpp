#include <tavix/net/http/detail/ErrorCategories.h>

#include <tavix/net/http/detail/Exchange.h>

#include <tavix/net/http/detail/ProxyTunnel.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>

namespace tavix::net::http {

namespace asio = boost::asio;
namespace beast = boost::beast;
using asio::ip::tcp;
using beast::http::field;
using boost::system::error_code;

namespace {

std::string hostField(Url const& url)
{
    bool const ipv6 = url.host().find(':') != std::string::npos;
    std::string host = ipv6 ? "[" + url.host() + "]" : url.host();
    unsigned short const defaultPort = url.scheme() == "https" ? 443 : 80;
    if (url.port() != defaultPort) host += ":" + std::to_string(url.port());
    return host;
}

bool idempotent(beast::http::verb method)
{
    using beast::http::verb;
    switch (method) {
    case verb::get:
    case verb::head:
    case verb::put:
    case verb::delete_:
    case verb::options:
    case verb::trace: return true;
    default: return false;
    }
}

} // namespace

Exchange::Exchange(std::shared_ptr<Connection> connection, bool reused, ConnectionPool* pool,
                   HttpRequest const& request, ClientOptions const& options, std::optional<Proxy> proxy,
                   HttpClient::Completion completion)
    : m_connection(std::move(connection)), m_reused(reused), m_pool(pool), m_idempotent(idempotent(request.method())),
      m_host(request.url().host()), m_port(request.url().port()), m_peer(m_host + ":" + std::to_string(m_port)),
      m_proxy(std::move(proxy)), m_options(options), m_completion(std::move(completion)),
      m_timer(m_connection->strand().context()), m_buffer(m_connection->buffer())
{
    auto const& fields = request.fields();
    m_request.method(request.method());
    m_request.target(request.url().target());
    m_request.version(11);
    if (fields.find(field::host) == fields.end()) m_request.set(field::host, hostField(request.url()));
    for (auto const& f : fields) m_request.insert(f.name_string(), f.value());
    if (!m_pool && fields.find(field::connection) == fields.end()) m_request.set(field::connection, "close");
    // The caller sets Content-Length for a body; an empty body gets none (not even "0").
    if (!request.payload().empty() && fields.find(field::content_length) == fields.end()
        && fields.find(field::transfer_encoding) == fields.end()) {
        m_request.set(field::content_length, std::to_string(request.payload().size()));
    }
    m_request.body() = request.payload();
    // Plain http through a proxy names the whole URL, and only the proxy sees its credentials.
    if (m_proxy && !m_connection->tls()) {
        m_request.target("http://" + hostField(request.url()) + request.url().target());
        std::string const authorization = m_proxy->authorization();
        if (!authorization.empty()) m_request.set(field::proxy_authorization, authorization);
    }
    m_parser.body_limit(m_options.maxBodySize);
    // The answer to HEAD has no body, whatever its Content-Length says.
    m_parser.skip(request.method() == beast::http::verb::head);
}

void Exchange::start()
{
    asio::post(m_connection->strand(), [self = shared_from_this()] { self->begin(); });
}

void Exchange::begin()
{
    error_code ec;
    if (interrupted(ec)) return finish(ec);
    m_exchangeDeadline = Clock::now() + m_options.exchangeTimeout;
    if (!m_reused) return connect();
    m_connectionUp = true;
    armTimer(m_exchangeDeadline);
    send();
}

void Exchange::connect()
{
    armTimer(std::min(Clock::now() + m_options.connectTimeout, m_exchangeDeadline));
    std::string const& host = m_proxy ? m_proxy->host : m_host;
    unsigned short const port = m_proxy ? m_proxy->port : m_port;
    error_code notAnAddress;
    auto const address = asio::ip::make_address(host, notAnAddress);
    // No resolver for an IP literal: it would cost a hop through the resolver's thread.
    if (!notAnAddress) return connectTo(tcp::endpoint(address, port));
    m_resolver.emplace(m_connection->strand().context());
    m_resolver->async_resolve(
        host, std::to_string(port),
        onStrand([self = shared_from_this()](error_code ec, tcp::resolver::results_type endpoints) {
            self->onResolve(ec, std::move(endpoints));
        }));
}

void Exchange::connectTo(tcp::endpoint const& endpoint)
{
    m_connection->socket().async_connect(endpoint,
                                         onStrand([self = shared_from_this()](error_code ec) { self->onConnect(ec); }));
}

void Exchange::onResolve(error_code ec, tcp::resolver::results_type endpoints)
{
    if (interrupted(ec)) return finish(ec);
    asio::async_connect(
        m_connection->socket(), endpoints,
        onStrand([self = shared_from_this()](error_code ec, tcp::endpoint const&) { self->onConnect(ec); }));
}

void Exchange::onConnect(error_code ec)
{
    if (interrupted(ec)) return finish(ec);
    if (!m_proxy || !m_connection->tls()) return onTunnel({});
    // The connect time-out covers the proxy's answer too.
    std::string const origin =
        (m_host.find(':') != std::string::npos ? "[" + m_host + "]" : m_host) + ":" + std::to_string(m_port);
    openTunnel(m_connection, origin, m_proxy->authorization(),
               [self = shared_from_this()](error_code ec) { self->onTunnel(ec); });
}

void Exchange::onTunnel(error_code ec)
{
    if (interrupted(ec)) return finish(ec);
    Connection::TlsStream* tls = m_connection->tls();
    if (!tls) return onHandshake({});
    // The request follows the client's last handshake record at once: Nagle would hold it back
    // until that record is acknowledged.
    error_code ignored;
    m_connection->socket().set_option(tcp::no_delay(true), ignored);
    m_connection->expectPeer(m_host);
    m_connection->tlsContext()->resume(tls->native_handle(), m_peer);
    tls->async_handshake(asio::ssl::stream_base::client,
                         onStrand([self = shared_from_this()](error_code ec) { self->onHandshake(ec); }));
}

void Exchange::onHandshake(error_code ec)
{
    if (interrupted(ec)) return finish(ec);
    m_connectionUp = true;
    send();
}

void Exchange::send()
{
    m_connection->withStream([this](auto& stream) {
        beast::http::async_write(stream, m_request, onStrand([self = shared_from_this()](error_code ec, std::size_t) {
                                     self->onWrite(ec);
                                 }));
    });
}

void Exchange::onWrite(error_code ec)
{
    if (interrupted(ec)) return finish(ec);
    // The head alone first: Beast 1.74 forgets a Content-Length over the body limit when the
    // body arrives in the same read as the head, and would then allocate the whole body.
    m_connection->withStream([this](auto& stream) {
        beast::http::async_read_header(
            stream, m_buffer, m_parser,
            onStrand([self = shared_from_this()](error_code ec, std::size_t) { self->onHead(ec); }));
    });
}

void Exchange::onHead(error_code ec)
{
    if (interrupted(ec)) return finish(ec);
    // A body that came with the head (the usual small answer) is parsed here and now, which
    // spares a trip through the io_context.
    if (!m_parser.is_done() && m_buffer.size() > 0) {
        m_parser.eager(true);
        m_buffer.consume(m_parser.put(m_buffer.data(), ec));
        if (ec && ec != beast::http::error::need_more) return finish(ec);
    }
    if (m_parser.is_done()) return finish({});
    m_connection->withStream([this](auto& stream) {
        beast::http::async_read(
            stream, m_buffer, m_parser,
            onStrand([self = shared_from_this()](error_code ec, std::size_t) { self->onRead(ec); }));
    });
}

void Exchange::onRead(error_code ec) { finish(ec); }

bool Exchange::interrupted(error_code& ec) const
{
    if (m_timedOut) ec = beast::error::timeout;
    else if (!ec && m_connection->closed()) ec = asio::error::operation_aborted;
    return bool(ec);
}

void Exchange::finish(error_code ec)
{
    if (m_finished) return;
    if (ec && m_timedOut) ec = beast::error::timeout;
    if (ec && retryOnNewConnection(ec)) return;
    m_finished = true;
    m_timer.cancel();
    if (ec) m_connection->close();
    else release();

    HttpResponse response;
    if (m_parser.is_header_done()) {
        auto& message = m_parser.get();
        response = HttpResponse(message.result_int(), std::move(message.base()), std::move(message.body()));
    }
    HttpClient::Completion completion;
    completion.swap(m_completion);
    if (completion) completion(response, ec);
}

bool Exchange::retryOnNewConnection(error_code ec)
{
    if (!m_reused || !m_idempotent || m_parser.got_some() || m_timedOut || m_connection->closed()
        || ec == asio::error::operation_aborted) {
        return false;
    }
    m_reused = false;
    m_connectionUp = false;
    m_buffer.consume(m_buffer.size());
    m_connection->reopen();
    connect();
    return true;
}

void Exchange::release()
{
    if (auto* tls = m_connection->tls()) m_connection->tlsContext()->remember(tls->native_handle(), m_peer);
    // Only a connection with nothing left over from this exchange can carry the next one.
    bool const reusable = m_pool && m_request.keep_alive() && m_parser.is_done() && m_parser.keep_alive()
        && m_buffer.size() == 0 && !m_connection->closed();
    if (reusable) m_pool->give(m_connection);
}

void Exchange::armTimer(Clock::time_point deadline)
{
    m_timer.expires_at(deadline);
    m_timer.async_wait(onStrand([self = shared_from_this()](error_code ec) { self->onTimer(ec); }));
}

void Exchange::onTimer(error_code ec)
{
    if (ec || m_finished) return;
    // Armed once, for the nearer deadline; a connection up (handshake done) by the connect
    // deadline has until the exchange deadline. One timer spares a cancel per exchange.
    if (m_connectionUp && Clock::now() < m_exchangeDeadline) return armTimer(m_exchangeDeadline);
    m_timedOut = true;
    if (m_resolver) m_resolver->cancel();
    m_connection->close();
}

} // namespace tavix::net::http
