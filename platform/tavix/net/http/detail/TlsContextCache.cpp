#include <tavix/net/http/detail/ErrorCategories.h>

#include <tavix/net/http/detail/TlsContextCache.h>

#include <tavix/detail/FileIdentity.h>
#include <tavix/net/http/TlsFiles.h>

#include <sys/stat.h>

#include <ctime>
#include <mutex>
#include <tuple>

namespace tavix::net::http {

namespace ssl = boost::asio::ssl;
using boost::system::error_code;

namespace {

// A device talks to a handful of services: more peers than this means something is off, and
// forgetting them all costs only full handshakes.
constexpr std::size_t maxSessions = 64;

std::shared_ptr<TlsClientContext> build(std::string const& caFile, std::string const& clientCertFile, error_code& ec)
{
    // Told by their errno here; OpenSSL would say only "asio.ssl error".
    ec = checkTlsFiles(caFile, clientCertFile);
    if (ec) return nullptr;
    auto client = std::make_shared<TlsClientContext>();
    ssl::context* context = &client->context();
    context->set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 | ssl::context::no_sslv3
                             | ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1,
                         ec);
    if (!ec) context->set_verify_mode(ssl::verify_peer, ec);
    if (!ec) caFile.empty() ? context->set_default_verify_paths(ec) : context->load_verify_file(caFile, ec);
    if (!ec && !clientCertFile.empty()) {
        context->use_certificate_chain_file(clientCertFile, ec);
        if (!ec) context->use_private_key_file(clientCertFile, ssl::context::pem, ec);
    }
    if (ec) return nullptr;
    return client;
}

} // namespace

void TlsClientContext::resume(SSL* ssl, std::string const& peer)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto const found = m_sessions.find(peer);
    if (found != m_sessions.end()) SSL_set_session(ssl, found->second.get());
}

void TlsClientContext::remember(SSL* ssl, std::string const& peer)
{
    SSL_SESSION* const current = SSL_get_session(ssl);
    if (!current || !SSL_SESSION_is_resumable(current)) return;
    // A copy: OpenSSL marks the connection's own session not resumable when the connection ends
    // without a TLS shutdown, as a forced close does.
    Session session(SSL_SESSION_dup(current));
    if (!session) return;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_sessions.size() >= maxSessions && m_sessions.find(peer) == m_sessions.end()) m_sessions.clear();
    m_sessions[peer] = std::move(session);
}

std::shared_ptr<TlsClientContext> sharedTlsContext(std::string const& caFile, std::string const& clientCertFile,
                                                   error_code& ec)
{
    // Never destroyed: a worker may still make a connection while the process exits.
    struct Cache {
        std::mutex mutex;
        std::shared_ptr<TlsClientContext> context;
        detail::FileIdentity ca, cert;
    };
    static Cache& cache = *new Cache;

    auto const ca = detail::FileIdentity::of(caFile), cert = detail::FileIdentity::of(clientCertFile);
    std::lock_guard<std::mutex> lock(cache.mutex);
    if (!cache.context || ca != cache.ca || cert != cache.cert) {
        auto fresh = build(caFile, clientCertFile, ec);
        if (!fresh) return nullptr;
        cache.context = std::move(fresh);
        cache.ca = ca;
        cache.cert = cert;
    }
    ec = {};
    return cache.context;
}

} // namespace tavix::net::http
