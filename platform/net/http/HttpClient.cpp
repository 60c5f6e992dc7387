#include <platform/net/http/ErrorCategories.h>

#include <platform/net/http/HttpClient.h>

#include <platform/controller/Settings.h>
#include <platform/net/http/Connection.h>
#include <platform/net/http/Exchange.h>
#include <platform/net/http/ProxyChoice.h>
#include <platform/net/http/TlsContextCache.h>

#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>

#include <mutex>

namespace tavix::net::http {

namespace asio = boost::asio;
using boost::system::error_code;

namespace {

std::mutex s_defaultsMutex;
ClientOptions s_defaults;

// Checks the URL and the header fields, chooses the proxy and, for https, gets the shared TLS
// context of the current settings.
std::shared_ptr<asio::ssl::context> prepare(HttpRequest const& request, std::optional<Proxy>& proxy, error_code& ec)
{
    Url const& url = request.url();
    if (!url.isValid() || url.host().empty() || request.hasRefusedField()) {
        ec = make_error_code(boost::system::errc::invalid_argument);
        return nullptr;
    }
    if (url.scheme() != "http" && url.scheme() != "https") {
        ec = make_error_code(boost::system::errc::protocol_not_supported);
        return nullptr;
    }
    // Read at each use: a re-provisioned device needs no restart.
    auto const settings = controller::Settings::load(ec);
    if (ec) return nullptr;
    proxy = chooseProxy(url, settings, ec);
    if (ec || url.scheme() == "http") return nullptr;
    return sharedTlsContext(settings.caFile, settings.clientCertFile, ec);
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
    std::shared_ptr<Connection> connection;  // of the last exchange
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
    std::optional<Proxy> proxy;
    std::shared_ptr<asio::ssl::context> tls = prepare(request, proxy, ec);
    if (ec) {
        // Reported to the completion too: a caller that only waits for the callback (some
        // clients drop this result by design) must not wait forever.
        asio::post(m_state->io, [completion = m_state->completion, ec] { completion(HttpResponse(), ec); });
        return ec;
    }

    auto connection = std::make_shared<Connection>(m_state->io, std::move(tls));
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        m_state->connection = connection;
    }
    std::make_shared<Exchange>(std::move(connection), request, m_state->options, std::move(proxy),
                               m_state->completion)
        ->start();
    return {};
}

void HttpClient::close(bool force)
{
    std::shared_ptr<Connection> connection;
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        connection.swap(m_state->connection);
    }
    if (!connection) return;
    asio::dispatch(connection->strand(), [connection, force] {
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

} // namespace tavix::net::http
