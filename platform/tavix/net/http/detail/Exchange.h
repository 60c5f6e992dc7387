// One HTTP request and its response: over a reused connection, write and read; over a new one,
// resolve (names only), connect, CONNECT tunnel (https through a proxy) and TLS handshake
// first; one stage per handler. Afterwards the connection goes back to the pool when the answer
// allows it. It keeps itself alive through its handlers, so it finishes (and calls its
// completion once) even when its client is gone.
#pragma once

#include <tavix/net/http/HttpClient.h>
#include <tavix/net/http/ProxyChoice.h>
#include <tavix/net/http/detail/Connection.h>
#include <tavix/net/http/detail/ConnectionPool.h>

#include <boost/asio/bind_executor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

#include <optional>

namespace tavix::net::http {

class Exchange : public std::enable_shared_from_this<Exchange> {
public:
    // `reused`: `connection` came from the pool, already connected. `pool` null: the connection
    // is not to be kept (reuse is off). `proxy`: the connection goes to it, and https through a
    // tunnel in it.
    Exchange(std::shared_ptr<Connection> connection, bool reused, ConnectionPool* pool, HttpRequest const& request,
             ClientOptions const& options, std::optional<Proxy> proxy, HttpClient::Completion completion);

    // Runs on the connection's strand; may be called from any thread.
    void start();

private:
    using Clock = std::chrono::steady_clock;

    void begin();
    void connect();
    void send();
    void connectTo(boost::asio::ip::tcp::endpoint const& endpoint);
    void onResolve(boost::system::error_code ec, boost::asio::ip::tcp::resolver::results_type endpoints);
    void onConnect(boost::system::error_code ec);
    void onTunnel(boost::system::error_code ec);
    void onHandshake(boost::system::error_code ec);
    void onWrite(boost::system::error_code ec);
    void onHead(boost::system::error_code ec);
    void onRead(boost::system::error_code ec);
    // A stage that completed after a time-out or a close still ends the exchange with an error.
    bool interrupted(boost::system::error_code& ec) const;
    void finish(boost::system::error_code ec);
    // A reused connection that failed before any byte of the answer had most likely been closed
    // by the server while idle: an idempotent request goes once more over a new connection.
    bool retryOnNewConnection(boost::system::error_code ec);
    void release();

    template <class Handler>
    auto onStrand(Handler&& handler)
    {
        return boost::asio::bind_executor(m_connection->strand(), std::forward<Handler>(handler));
    }

    void armTimer(Clock::time_point deadline);
    void onTimer(boost::system::error_code ec);

    std::shared_ptr<Connection> m_connection;
    bool m_reused;
    ConnectionPool* m_pool;
    bool m_idempotent;
    std::string m_host;
    unsigned short m_port;
    std::string m_peer; // "host:port", whose TLS session is resumed
    std::optional<Proxy> m_proxy;
    ClientOptions m_options;
    HttpClient::Completion m_completion;
    boost::beast::http::request<boost::beast::http::string_body> m_request;

    std::optional<boost::asio::ip::tcp::resolver> m_resolver;
    boost::asio::steady_timer m_timer;
    Clock::time_point m_exchangeDeadline;
    bool m_connectionUp = false; // connected, TLS handshake done: the connect time-out no longer applies
    bool m_timedOut = false;
    bool m_finished = false;

    boost::beast::flat_buffer& m_buffer; // the connection's
    boost::beast::http::response_parser<boost::beast::http::string_body> m_parser;
};

} // namespace tavix::net::http
