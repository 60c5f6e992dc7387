#include <restclient/storage/detail/TransferHandles.h>

#include <tavix/detail/FileIdentity.h>
#include <tavix/net/http/detail/TlsContextCache.h>

#include <openssl/ssl.h>

#include <atomic>
#include <map>
#include <mutex>
#include <vector>

namespace tavix::restclient::storage::detail {

using tavix::detail::FileIdentity;

namespace {

// Enough for the uploads a device runs at once; more are closed after their transfer.
constexpr std::size_t kIdleHandles = 4;
// Keys seen at once: the REST files and an uploader's own, a proxy or two.
constexpr std::size_t kShares = 8;

// What a new connection's TLS set-up needs to offer a session of the HTTP client's cache.
struct SessionBridge {
    std::shared_ptr<net::http::TlsClientContext> context;
    std::string peer; // "host:port", as the HTTP client names it
};

} // namespace

class TransferShare {
public:
    TransferShare(FileIdentity ca, FileIdentity cert) : ca(std::move(ca)), cert(std::move(cert))
    {
        if (!m_share) return;
        curl_share_setopt(m_share, CURLSHOPT_USERDATA, this);
        curl_share_setopt(m_share, CURLSHOPT_LOCKFUNC, &lock);
        curl_share_setopt(m_share, CURLSHOPT_UNLOCKFUNC, &unlock);
        curl_share_setopt(m_share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
        curl_share_setopt(m_share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    }
    TransferShare(TransferShare const&) = delete;
    TransferShare& operator=(TransferShare const&) = delete;
    // Every handle that used the share is gone by now: the lent ones hold it.
    ~TransferShare()
    {
        for (CURL* curl : m_idle) curl_easy_cleanup(curl);
        if (m_share) curl_share_cleanup(m_share);
    }

    CURL* newHandle()
    {
        CURL* const curl = curl_easy_init();
        if (curl && m_share) curl_easy_setopt(curl, CURLOPT_SHARE, m_share);
        return curl;
    }
    CURL* takeIdle()
    {
        std::lock_guard<std::mutex> lock(m_idleMutex);
        if (m_idle.empty()) return nullptr;
        CURL* const curl = m_idle.back();
        m_idle.pop_back();
        return curl;
    }
    // False: the caller closes the handle (a retired share, or enough idle ones).
    bool giveBack(CURL* curl)
    {
        std::lock_guard<std::mutex> lock(m_idleMutex);
        if (retired || m_idle.size() >= kIdleHandles) return false;
        m_idle.push_back(curl);
        return true;
    }

    FileIdentity const ca, cert;
    std::atomic<bool> retired{false};

private:
    static void lock(CURL*, curl_lock_data data, curl_lock_access, void* self)
    {
        static_cast<TransferShare*>(self)->m_locks[data].lock();
    }
    static void unlock(CURL*, curl_lock_data data, void* self)
    {
        static_cast<TransferShare*>(self)->m_locks[data].unlock();
    }

    CURLSH* const m_share = curl_share_init();
    std::mutex m_locks[CURL_LOCK_DATA_LAST];
    std::mutex m_idleMutex;
    std::vector<CURL*> m_idle;
};

namespace {

std::shared_ptr<TransferShare> shareFor(TransferKey const& key)
{
    // Never destroyed: an uploader may still send while the process exits.
    struct Registry {
        std::mutex mutex;
        std::map<std::string, std::shared_ptr<TransferShare>> shares;
    };
    static Registry& registry = *new Registry;

    auto ca = FileIdentity::of(key.caFile), cert = FileIdentity::of(key.clientCertFile);
    std::string const name =
        key.caFile + '\n' + key.clientCertFile + '\n' + (key.oldProtocol ? "old" : "") + '\n' + key.proxyRoute;
    std::lock_guard<std::mutex> lock(registry.mutex);
    auto found = registry.shares.find(name);
    if (found != registry.shares.end() && found->second->ca == ca && found->second->cert == cert) return found->second;
    if (found != registry.shares.end()) {
        found->second->retired = true;
        registry.shares.erase(found);
    }
    if (registry.shares.size() >= kShares) {
        for (auto& entry : registry.shares) entry.second->retired = true;
        registry.shares.clear();
    }
    auto share = std::make_shared<TransferShare>(std::move(ca), std::move(cert));
    registry.shares.emplace(name, share);
    return share;
}

// The SSL_CTX owns its copy of the bridge: libcurl keeps the context as long as the connection.
int bridgeIndex()
{
    static int const index = SSL_CTX_get_ex_new_index(
        0, nullptr, nullptr, nullptr,
        [](void*, void* bridge, CRYPTO_EX_DATA*, int, long, void*) { delete static_cast<SessionBridge*>(bridge); });
    return index;
}

// Before the ClientHello: a connection libcurl has no session for takes the HTTP client's.
void offerSession(SSL const* ssl, int where, int)
{
    if (!(where & SSL_CB_HANDSHAKE_START) || SSL_get_session(ssl)) return;
    auto const* bridge = static_cast<SessionBridge const*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), bridgeIndex()));
    if (bridge) bridge->context->resume(const_cast<SSL*>(ssl), bridge->peer);
}

CURLcode onSslContext(CURL*, void* sslContext, void* bridge)
{
    auto* context = static_cast<SSL_CTX*>(sslContext);
    delete static_cast<SessionBridge*>(SSL_CTX_get_ex_data(context, bridgeIndex()));
    SSL_CTX_set_ex_data(context, bridgeIndex(), new SessionBridge(*static_cast<SessionBridge*>(bridge)));
    SSL_CTX_set_info_callback(context, &offerSession);
    return CURLE_OK;
}

} // namespace

TransferHandle TransferHandle::take(TransferKey const& key, bool shared)
{
    if (!shared) return TransferHandle(curl_easy_init(), nullptr);
    auto share = shareFor(key);
    CURL* curl = share->takeIdle();
    // A reset keeps the connection, the share and the session cache; it drops every option.
    if (curl) curl_easy_reset(curl);
    else curl = share->newHandle();
    return TransferHandle(curl, std::move(share));
}

TransferHandle::TransferHandle(CURL* curl, std::shared_ptr<TransferShare> share)
    : m_curl(curl), m_share(std::move(share))
{}

TransferHandle::TransferHandle(TransferHandle&& other) noexcept
    : m_curl(other.m_curl), m_share(std::move(other.m_share)), m_bridge(std::move(other.m_bridge)), m_keep(other.m_keep)
{
    other.m_curl = nullptr;
}

TransferHandle::~TransferHandle()
{
    if (!m_curl) return;
    if (m_keep && m_share) {
        // The bridge dies with this object; an idle handle must not point at it.
        curl_easy_setopt(m_curl, CURLOPT_SSL_CTX_FUNCTION, nullptr);
        curl_easy_setopt(m_curl, CURLOPT_SSL_CTX_DATA, nullptr);
        if (m_share->giveBack(m_curl)) return;
    }
    curl_easy_cleanup(m_curl);
}

void TransferHandle::offerRestSessions(std::string const& caFile, std::string const& clientCertFile,
                                       std::string const& host, unsigned short port)
{
    if (!m_share || !m_curl) return;
    boost::system::error_code ec;
    auto context = net::http::sharedTlsContext(caFile, clientCertFile, ec);
    if (!context) return; // libcurl reports what is wrong with the files
    // The HTTP client looks at the files once a second: sessions it made under a CA bundle or a
    // client certificate replaced since then are not offered.
    if (context->caIdentity != m_share->ca || context->certIdentity != m_share->cert) return;
    auto bridge = std::make_shared<SessionBridge>(SessionBridge{std::move(context), host + ":" + std::to_string(port)});
    curl_easy_setopt(m_curl, CURLOPT_SSL_CTX_FUNCTION, &onSslContext);
    curl_easy_setopt(m_curl, CURLOPT_SSL_CTX_DATA, bridge.get());
    m_bridge = std::move(bridge);
}

} // namespace tavix::restclient::storage::detail
