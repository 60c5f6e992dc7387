/// @file
/// Asynchronous HTTP/1.1 client over Boost.Beast, with TLS through Boost.Asio SSL.
/// Each started exchange ends in exactly one call of the completion, on a thread that runs
/// the io_context; connect and exchange time-outs and a body size limit keep a broken or
/// hostile peer from hanging or exhausting the caller. Requests take the proxy that
/// `chooseProxy` (ProxyChoice.h) names for their URL.
///
/// Connections are kept alive and reused: after a complete exchange whose answer allows it, the
/// connection waits in its io_context's pool for the next client object's exchange to the same
/// scheme, host and port made under the same TLS settings (CA bundle, client certificate). A
/// connection found closed is not used; an idempotent request (GET, HEAD, PUT, DELETE, OPTIONS,
/// TRACE) that fails on a reused connection before any byte of its answer is sent once more on a
/// new one, any other request fails. New TLS connections resume the peer's last session. The
/// controller setting `connection_reuse = false` turns reuse off ("Connection: close" on every
/// request).
#pragma once

#include <tavix/Export.h>
#include <tavix/net/http/HttpMessage.h>

#include <boost/asio/io_context.hpp>
#include <boost/function.hpp>
#include <boost/system/error_code.hpp>

#include <chrono>
#include <cstddef>
#include <memory>

namespace tavix::net::http {

/// @brief The bounds of one exchange, which keep a broken or hostile peer from hanging or
/// exhausting the caller. Each ends the exchange with an error (beast::error::timeout,
/// beast::http::error::body_limit).
struct ClientOptions {
    std::chrono::milliseconds connectTimeout{10000};  ///< resolve, connect and TLS handshake, together
    std::chrono::milliseconds exchangeTimeout{60000}; ///< the whole exchange, connect included
    std::size_t maxBodySize = 16 * 1024 * 1024;       ///< a larger response body is an error
};

/// @brief The pool's bounds, for every io_context of the process.
struct PoolLimits {
    std::size_t perRoute = 4;                    ///< idle connections to one scheme, host and port
    std::size_t total = 16;                      ///< idle connections in all
    std::chrono::milliseconds idleTimeout{4000}; ///< below the common servers' keep-alive time-outs
};

/// @brief One HTTP/1.1 client object: the transport under every REST client.
///
/// `io` must outlive the client and every exchange it started. An exchange in flight holds what
/// it needs itself, so the client may be destroyed before its completion has run.
class TAVIX_EXPORT HttpClient {
public:
    /// Called once per exchange, on a thread that runs the io_context. The error is set when no
    /// usable answer came (refused or dropped connection, time-out, TLS verification, body over
    /// the limit, a proxy's refusal in proxy_category()); the response's status is that of the
    /// head when a head arrived (so it may be non-zero with an error, 200 with `body_limit` for
    /// one), 0 otherwise. An exception it throws leaves `io_context::run()`.
    using Completion = boost::function<void(HttpResponse const&, boost::system::error_code const&)>;

    /// A client with defaultOptions() as they are now.
    HttpClient(boost::asio::io_context& io, Completion completion);
    /// A client with its own bounds.
    HttpClient(boost::asio::io_context& io, Completion completion, ClientOptions const& options);
    HttpClient(HttpClient const&) = delete;
    HttpClient& operator=(HttpClient const&) = delete;
    /// Does not cancel an exchange in flight: it finishes and calls its completion.
    ~HttpClient();

    /// Starts one exchange; the result is the error of starting it (`invalid_argument` for a
    /// request without a usable URL or with a refused header field; `protocol_not_supported`
    /// for a scheme other than http and https; a SettingsError; `ProxyError::badAddress` for a
    /// proxy that cannot be used; the error of loading a CA bundle or client certificate that
    /// cannot be loaded). Every call ends in exactly one completion: a refused start is reported
    /// there too, with the same error, posted to the io_context (never called from within this
    /// call). Returns at once; resolving and connecting happen on the io_context.
    boost::system::error_code asyncRequest(HttpRequest const& request);

    /// Ends the connection of an exchange in flight, which then completes with an error;
    /// `force` closes the socket at once, otherwise it is shut down. A connection whose exchange
    /// is complete has gone back to the pool, or was closed, and is left alone.
    void close(bool force);

    /// Options given to clients constructed later without their own (every REST client);
    /// process-wide, safe from any thread.
    static void setDefaultOptions(ClientOptions const& options);
    /// The options a client constructed now without its own gets.
    static ClientOptions defaultOptions();
    /// The idle-connection pool's bounds for every io_context of the process; safe from any thread.
    static void setPoolLimits(PoolLimits const& limits);

private:
    struct State;
    std::shared_ptr<State> m_state;
};

} // namespace tavix::net::http
