#include <tools/emulator/HttpServer.h>
#include <tools/emulator/detail/HttpServerSession.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/string.hpp>

#include <openssl/x509.h>

#include <thread>

namespace tavix::emulator {

using namespace detail;
namespace ssl = asio::ssl;

std::optional<std::string> CapturedRequest::header(std::string const& name) const
{
    for (auto const& [key, value] : headers) {
        if (boost::beast::iequals(key, name)) return value;
    }
    return std::nullopt;
}

std::string detail::peerCommonName(SSL* ssl)
{
    X509* const certificate = SSL_get0_peer_certificate(ssl);
    if (!certificate) return {};
    char name[256] = {};
    if (X509_NAME_get_text_by_NID(X509_get_subject_name(certificate), NID_commonName, name, sizeof name) < 0) return {};
    return name;
}

namespace {

std::optional<ssl::context> makeTlsContext(std::optional<TlsFiles> const& files)
{
    if (!files) return std::nullopt;
    std::optional<ssl::context> context(std::in_place, ssl::context::tls_server);
    context->set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 | ssl::context::no_sslv3);
    context->use_certificate_chain_file(files->certificateChain);
    context->use_private_key_file(files->privateKey, ssl::context::pem);
    if (!files->clientCa.empty()) {
        context->load_verify_file(files->clientCa);
        // Unless required, a client without a certificate is served and recorded as such.
        context->set_verify_mode(files->requireClientCertificate ? ssl::verify_peer | ssl::verify_fail_if_no_peer_cert
                                                                 : ssl::verify_peer);
    }
    // Resumed sessions (of a verified client too) need the context they were made in.
    static unsigned char const sessionContext[] = "tavix-emulator";
    SSL_CTX_set_session_id_context(context->native_handle(), sessionContext, sizeof sessionContext - 1);
    return context;
}

} // namespace

struct HttpServer::Impl {
    ServerState state;
    std::optional<ssl::context> tls; // outlives the connections, which die with `io`
    asio::io_context io{1};
    tcp::acceptor acceptor{io};
    asio::steady_timer retryTimer{io};
    unsigned short port = 0;
    std::string host;
    std::thread thread;

    void accept()
    {
        acceptor.async_accept([this](error_code ec, tcp::socket socket) {
            if (ec == asio::error::operation_aborted) return;
            if (ec) {
                // Out of descriptors, say: try again shortly rather than spin.
                retryTimer.expires_after(std::chrono::milliseconds(50));
                return retryTimer.async_wait([this](error_code) { accept(); });
            }
            error_code ignored;
            socket.set_option(tcp::no_delay(true), ignored);
            {
                std::lock_guard<std::mutex> lock(state.mutex);
                ++state.counts.connections;
            }
            if (tls) {
                using TlsStream = ssl::stream<tcp::socket>;
                std::make_shared<ServerSession<TlsStream>>(state, TlsStream(std::move(socket), *tls))->start();
            } else {
                std::make_shared<ServerSession<tcp::socket>>(state, std::move(socket))->start();
            }
            accept();
        });
    }
};

HttpServer::HttpServer(Handler handler, std::optional<TlsFiles> tls, unsigned short port, std::string const& address)
    : m_impl(std::make_unique<Impl>())
{
    m_impl->state.handler = std::move(handler);
    m_impl->tls = makeTlsContext(tls);
    tcp::endpoint const endpoint(asio::ip::make_address(address), port);
    m_impl->host =
        endpoint.address().is_v6() ? "[" + endpoint.address().to_string() + "]" : endpoint.address().to_string();
    m_impl->acceptor.open(endpoint.protocol());
    m_impl->acceptor.set_option(tcp::acceptor::reuse_address(true));
    m_impl->acceptor.bind(endpoint);
    m_impl->acceptor.listen();
    m_impl->port = m_impl->acceptor.local_endpoint().port();
    m_impl->accept();
    m_impl->thread = std::thread([impl = m_impl.get()] { impl->io.run(); });
}

HttpServer::~HttpServer()
{
    // Open connections (silent ones included) are closed when `io` destroys their handlers.
    m_impl->io.stop();
    m_impl->thread.join();
}

unsigned short HttpServer::port() const { return m_impl->port; }

std::string HttpServer::baseUrl() const
{
    return std::string(m_impl->tls ? "https" : "http") + "://" + m_impl->host + ":" + std::to_string(m_impl->port);
}

void HttpServer::setBodyPlanner(BodyPlanner planner)
{
    std::lock_guard<std::mutex> lock(m_impl->state.mutex);
    m_impl->state.bodyPlanner = std::move(planner);
}

void HttpServer::setBodyFileChooser(BodyFileChooser chooser)
{
    setBodyPlanner([chooser = std::move(chooser)](http::request_header<> const& head) {
        BodyPlan plan;
        plan.file = chooser(head);
        return plan;
    });
}

void HttpServer::setBodyLimit(std::size_t bytes)
{
    std::lock_guard<std::mutex> lock(m_impl->state.mutex);
    m_impl->state.bodyLimit = bytes;
}

void HttpServer::pushFault(Fault fault)
{
    std::lock_guard<std::mutex> lock(m_impl->state.mutex);
    m_impl->state.faults.push_back(std::move(fault));
}

void HttpServer::clearFaults()
{
    std::lock_guard<std::mutex> lock(m_impl->state.mutex);
    m_impl->state.faults.clear();
}

void HttpServer::setIdleTimeout(std::chrono::milliseconds timeout)
{
    std::lock_guard<std::mutex> lock(m_impl->state.mutex);
    m_impl->state.idleTimeout = timeout;
}

void HttpServer::setReadTimeout(std::chrono::milliseconds timeout)
{
    std::lock_guard<std::mutex> lock(m_impl->state.mutex);
    m_impl->state.readTimeout = timeout;
}

void HttpServer::setCaptureLimits(CaptureLimits limits)
{
    std::lock_guard<std::mutex> lock(m_impl->state.mutex);
    m_impl->state.captureLimits = limits;
    m_impl->state.trimCaptured();
}

ConnectionCounts HttpServer::connectionCounts() const
{
    std::lock_guard<std::mutex> lock(m_impl->state.mutex);
    return m_impl->state.counts;
}

void HttpServer::setFaultSource(FaultSource source)
{
    std::lock_guard<std::mutex> lock(m_impl->state.mutex);
    m_impl->state.faultSource = std::move(source);
}

std::vector<CapturedRequest> HttpServer::requests() const
{
    std::lock_guard<std::mutex> lock(m_impl->state.mutex);
    return {m_impl->state.requests.begin(), m_impl->state.requests.end()};
}

std::optional<CapturedRequest> HttpServer::lastRequest() const
{
    std::lock_guard<std::mutex> lock(m_impl->state.mutex);
    if (m_impl->state.requests.empty()) return std::nullopt;
    return m_impl->state.requests.back();
}

void HttpServer::clearRequests()
{
    std::lock_guard<std::mutex> lock(m_impl->state.mutex);
    m_impl->state.requests.clear();
    m_impl->state.capturedBytes = 0;
}

} // namespace tavix::emulator
