// The idle keep-alive connections of one io_context, kept as a service of that io_context so
// that they die with it (a connection must never outlive the io_context its socket belongs
// to). Idle connections have no operation pending, so they never keep `io_context::run` busy;
// the idle time-out is therefore checked when the pool is used, not by a timer.
#pragma once

#include <tavix/net/http/HttpClient.h>
#include <tavix/net/http/detail/Connection.h>

#include <boost/asio/execution_context.hpp>

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace tavix::net::http {

class ConnectionPool : public boost::asio::execution_context::service {
public:
    static boost::asio::execution_context::id id;

    explicit ConnectionPool(boost::asio::execution_context& context);
    ~ConnectionPool() override;

    // An idle connection for `route`, checked usable, or null.
    std::shared_ptr<Connection> take(std::string const& route);
    // After a complete exchange whose answer allowed keep-alive.
    void give(std::shared_ptr<Connection> connection);

    static void setLimits(PoolLimits const& limits);
    static PoolLimits limits();

private:
    using Clock = std::chrono::steady_clock;
    struct Idle {
        std::shared_ptr<Connection> connection;
        Clock::time_point since;
    };

    void shutdown() override;
    // Under the lock; the dropped connections go to `dropped`, to be closed outside it.
    void dropExpired(Clock::time_point now, std::chrono::milliseconds idleTimeout,
                     std::deque<std::shared_ptr<Connection>>& dropped);
    void forget(std::size_t count);

    std::mutex m_mutex;
    std::map<std::string, std::deque<Idle>> m_idle; // per route, oldest first
};

} // namespace tavix::net::http
