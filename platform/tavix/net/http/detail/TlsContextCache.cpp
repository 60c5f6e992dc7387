#include <tavix/net/http/detail/ErrorCategories.h>

#include <tavix/net/http/detail/TlsContextCache.h>

#include <tavix/detail/FileIdentity.h>
#include <tavix/net/http/TlsFiles.h>

#include <map>
#include <mutex>
#include <utility>

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
    if (found == m_sessions.end()) return;
    // A copy: OpenSSL marks the session a connection uses not resumable when that connection ends
    // without a TLS shutdown or (with a client session cache, as libcurl keeps) gets a new ticket.
    Session const copy(SSL_SESSION_dup(found->second.copy.get()));
    if (copy) SSL_set_session(ssl, copy.get());
}

void TlsClientContext::remember(SSL* ssl, std::string const& peer)
{
    SSL_SESSION* const current = SSL_get_session(ssl);
    if (!current || !SSL_SESSION_is_resumable(current)) return;
    {
        // A kept-alive connection brings the same session exchange after exchange: copied once.
        std::lock_guard<std::mutex> lock(m_mutex);
        auto const found = m_sessions.find(peer);
        if (found != m_sessions.end() && found->second.source == current) return;
    }
    // A copy: OpenSSL marks the connection's own session not resumable when the connection ends
    // without a TLS shutdown, as a forced close does.
    Session session(SSL_SESSION_dup(current));
    if (!session) return;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_sessions.size() >= maxSessions && m_sessions.find(peer) == m_sessions.end()) m_sessions.clear();
    m_sessions[peer] = Remembered{std::move(session), current};
}

std::shared_ptr<TlsClientContext> sharedTlsContext(std::string const& caFile, std::string const& clientCertFile,
                                                   error_code& ec)
{
    struct Entry {
        std::shared_ptr<TlsClientContext> context;
        detail::RecheckTimer recheck;
    };
    // Never destroyed: a worker may still make a connection while the process exits. A few
    // pairs of files at most (the REST settings', an uploader's own CA bundle).
    struct Cache {
        std::mutex mutex;
        std::map<std::pair<std::string, std::string>, Entry> entries;
    };
    static Cache& cache = *new Cache;
    constexpr std::size_t maxEntries = 4;

    std::lock_guard<std::mutex> lock(cache.mutex);
    if (cache.entries.size() >= maxEntries && !cache.entries.count({caFile, clientCertFile})) cache.entries.clear();
    Entry& entry = cache.entries[{caFile, clientCertFile}];
    if (entry.recheck.due(detail::RecheckTimer::Clock::now()) || !entry.context) {
        auto const ca = detail::FileIdentity::of(caFile), cert = detail::FileIdentity::of(clientCertFile);
        if (!entry.context || ca != entry.context->caIdentity || cert != entry.context->certIdentity) {
            auto fresh = build(caFile, clientCertFile, ec);
            if (!fresh) {
                entry.recheck.reset(); // a file being fixed is tried again at the next use
                return nullptr;
            }
            fresh->caIdentity = ca;
            fresh->certIdentity = cert;
            entry.context = std::move(fresh);
        }
    }
    ec = {};
    return entry.context;
}

} // namespace tavix::net::http
