// The client TLS context shared by every HTTPS connection of the process. Building one parses
// the whole CA bundle, far too slow to do per connection, so it is built once and rebuilt
// only when the CA bundle or the client certificate changes (their status is looked at no more
// than once a second, never once per request). It also
// keeps the last TLS session of each peer, so that a new connection to a peer seen before costs
// an abbreviated handshake; sessions die with their context, so changed TLS settings never
// resume a session made under the old ones.
#pragma once

#include <tavix/Export.h>
#include <tavix/detail/FileIdentity.h>

#include <boost/asio/ssl/context.hpp>
#include <boost/system/error_code.hpp>

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace tavix::net::http {

class TAVIX_EXPORT TlsClientContext {
public:
    TlsClientContext() : m_context(boost::asio::ssl::context::tls_client) {}
    TlsClientContext(TlsClientContext const&) = delete;
    TlsClientContext& operator=(TlsClientContext const&) = delete;

    boost::asio::ssl::context& context() { return m_context; }

    // The versions of the CA bundle and the client certificate the context was built from.
    detail::FileIdentity caIdentity, certIdentity;

    // Before the handshake: offers the session last remembered for `peer` ("host:port").
    void resume(SSL* ssl, std::string const& peer);
    // After a complete exchange (in TLS 1.3 the server's tickets arrive after the handshake).
    void remember(SSL* ssl, std::string const& peer);

private:
    struct SessionFree {
        void operator()(SSL_SESSION* session) const { SSL_SESSION_free(session); }
    };
    using Session = std::unique_ptr<SSL_SESSION, SessionFree>;

    struct Remembered {
        Session copy;
        SSL_SESSION const* source = nullptr; // the connection's session it was copied from
    };

    boost::asio::ssl::context m_context;
    std::mutex m_mutex;
    std::map<std::string, Remembered> m_sessions;
};

// `caFile` empty: the system's default CA paths. `clientCertFile` empty: no client certificate;
// otherwise one PEM holding the certificate (chain) and its key. The libcurl transfer asks for
// the context of its own files, and resumes its sessions where the files are the REST ones.
TAVIX_EXPORT std::shared_ptr<TlsClientContext>
sharedTlsContext(std::string const& caFile, std::string const& clientCertFile, boost::system::error_code& ec);

} // namespace tavix::net::http
