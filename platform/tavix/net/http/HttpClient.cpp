#include <tavix/net/http/detail/ErrorCategories.h>

#include <tavix/net/http/HttpClient.h>

#include <tavix/controller/Settings.h>
#include <tavix/net/http/ProxyChoice.h>
#include <tavix/net/http/detail/Connection.h>
#include <tavix/net/http/detail/ConnectionPool.h>
#include <tavix/net/http/detail/Exchange.h>
#include <tavix/net/http/detail/TlsContextCache.h>

#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>

#include <cstdint>
#include <mutex>

namespace tavix::net::http {

namespace asio = boost::asio;
using boost::system::error_code;

namespace {

std::mutex s_defaultsMutex;
ClientOptions s_defaults;

// What an exchange needs besides the request: the TLS context of the current settings (https
// only), the proxy, whether connections may be reused, and the route a reusable connection
// serves.
struct Route {
    std::shared_ptr<TlsClientContext> tls;
    std::optional<Proxy> proxy;
    bool reuse = true;
    std::string name;
};

// Checks the URL and the header fields, reads the settings (a re-provisioned device needs no
// restart) and chooses the proxy.
Route prepare(HttpRequest const& request, error_code& ec)
{
    Route route;
    Url const& url = request.url();
    if (!url.isValid() || url.host().empty() || request.hasRefusedField()) {
        ec = make_error_code(boost::system::errc::invalid_argument);
        return route;
    }
    if (url.scheme() != "http" && url.scheme() != "https") {
        ec = make_error_code(boost::system::errc::protocol_not_supported);
        return route;
    }
    auto const settings = controller::Settings::load(ec);
    if (ec) return route;
    route.reuse = settings.connectionReuse;
    route.proxy = chooseProxy(url, settings, ec);
    if (!ec && url.scheme() == "https") route.tls = sharedTlsContext(settings.caFile, settings.clientCertFile, ec);
    if (ec) return route;
    // A new TLS context (changed settings) is a new route: its connections are never mixed up
    // with those made under the old one, which it cannot share an address with while they live.
    route.name = url.scheme() + "://" + url.host() + ":" + std::to_string(url.port()) + "/"
        + std::to_string(reinterpret_cast<std::uintptr_t>(route.tls.get())) + "/"
        + (route.proxy ? route.proxy->route() : std::string());
    return route;
}

} // namespace

struct HttpClient::State {
    State(asio::io_context& io, Completion completion, ClientOptions const& options)
        : io(io), completion(std::move(completion)), options(options)
    {}

    asio::io_context& io;
    Completion completion;
    ClientOptions options;
    std::mutex mutex;
    std::shared_ptr<Connection> connection; // of the last exchange
    std::uint64_t lease = 0;                // the connection's lease when that exchange took it
};

HttpClient::HttpClient(asio::io_context& io, Completion completion)
    : HttpClient(io, std::move(completion), defaultOptions())
{}

HttpClient::HttpClient(asio::io_context& io, Completion completion, ClientOptions const& options)
    : m_state(std::make_shared<State>(io, std::move(completion), options))
{}

HttpClient::~HttpClient() = default;

error_code HttpClient::asyncRequest(HttpRequest const& request)
{
    error_code ec;
    Route route = prepare(request, ec);
    if (ec) {
        // Reported to the completion too: a caller that only waits for the callback (some
        // clients drop this result by design) must not wait forever.
        asio::post(m_state->io, [completion = m_state->completion, ec] { completion(HttpResponse(), ec); });
        return ec;
    }

    ConnectionPool* const pool = route.reuse ? &asio::use_service<ConnectionPool>(m_state->io) : nullptr;
    std::shared_ptr<Connection> connection = pool ? pool->take(route.name) : nullptr;
    bool const reused = connection != nullptr;
    if (!reused) connection = std::make_shared<Connection>(m_state->io, std::move(route.tls), route.name);
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        m_state->connection = connection;
        m_state->lease = connection->lease();
    }
    std::make_shared<Exchange>(std::move(connection), reused, pool, request, m_state->options, std::move(route.proxy),
                               m_state->completion)
        ->start();
    return {};
}

void HttpClient::close(bool force)
{
    std::shared_ptr<Connection> connection;
    std::uint64_t lease;
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        connection.swap(m_state->connection);
        lease = m_state->lease;
    }
    if (!connection) return;
    asio::dispatch(connection->strand(), [connection, lease, force] {
        if (connection->lease() != lease) return;
        if (force) connection->close();
        else connection->shutdown();
    });
}

void HttpClient::setDefaultOptions(ClientOptions const& options)
{
    std::lock_guard<std::mutex> lock(s_defaultsMutex);
    s_defaults = options;
}

ClientOptions HttpClient::defaultOptions()
{
    std::lock_guard<std::mutex> lock(s_defaultsMutex);
    return s_defaults;
}

void HttpClient::setPoolLimits(PoolLimits const& limits) { ConnectionPool::setLimits(limits); }

} // namespace tavix::net::http
