#include <tavix/net/http/detail/ConnectionPool.h>

#include <atomic>

namespace tavix::net::http {

boost::asio::execution_context::id ConnectionPool::id;

namespace {

std::mutex s_limitsMutex;
PoolLimits s_limits;
// Idle connections of every pool in the process, against `PoolLimits::total`.
std::atomic<std::size_t> s_idleTotal{0};

void closeAll(std::deque<std::shared_ptr<Connection>>& connections)
{
    for (auto& connection : connections) connection->close();
}

} // namespace

ConnectionPool::ConnectionPool(boost::asio::execution_context& context) : service(context) {}

ConnectionPool::~ConnectionPool() = default;

void ConnectionPool::shutdown()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto& [route, idle] : m_idle) {
        forget(idle.size());
        for (auto& entry : idle) entry.connection->close();
    }
    m_idle.clear();
}

std::shared_ptr<Connection> ConnectionPool::take(std::string const& route)
{
    auto const settings = limits();
    std::deque<std::shared_ptr<Connection>> dropped;
    std::shared_ptr<Connection> found;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        dropExpired(Clock::now(), settings.idleTimeout, dropped);
        auto const idle = m_idle.find(route);
        // The most recently used first: the one most likely still open at the other end.
        while (!found && idle != m_idle.end() && !idle->second.empty()) {
            auto connection = std::move(idle->second.back().connection);
            idle->second.pop_back();
            forget(1);
            if (connection->idleAndUsable()) found = std::move(connection);
            else dropped.push_back(std::move(connection));
        }
        if (idle != m_idle.end() && idle->second.empty()) m_idle.erase(idle);
    }
    closeAll(dropped);
    return found;
}

void ConnectionPool::give(std::shared_ptr<Connection> connection)
{
    // The client that used it must no longer close it.
    connection->newLease();
    std::string const route = connection->route();
    auto const settings = limits();
    std::deque<std::shared_ptr<Connection>> dropped;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto const now = Clock::now();
        dropExpired(now, settings.idleTimeout, dropped);
        auto& idle = m_idle[route];
        if (idle.size() >= settings.perRoute && !idle.empty()) {
            dropped.push_back(std::move(idle.front().connection));
            idle.pop_front();
            forget(1);
        }
        if (idle.size() < settings.perRoute && s_idleTotal < settings.total) {
            ++s_idleTotal;
            idle.push_back({std::move(connection), now});
        } else {
            dropped.push_back(std::move(connection));
        }
        if (idle.empty()) m_idle.erase(route);
    }
    closeAll(dropped);
}

void ConnectionPool::dropExpired(Clock::time_point now, std::chrono::milliseconds idleTimeout,
                                 std::deque<std::shared_ptr<Connection>>& dropped)
{
    for (auto route = m_idle.begin(); route != m_idle.end();) {
        auto& idle = route->second;
        while (!idle.empty() && now - idle.front().since >= idleTimeout) {
            dropped.push_back(std::move(idle.front().connection));
            idle.pop_front();
            forget(1);
        }
        route = idle.empty() ? m_idle.erase(route) : std::next(route);
    }
}

void ConnectionPool::forget(std::size_t count) { s_idleTotal -= count; }

void ConnectionPool::setLimits(PoolLimits const& limits)
{
    std::lock_guard<std::mutex> lock(s_limitsMutex);
    s_limits = limits;
}

PoolLimits ConnectionPool::limits()
{
    std::lock_guard<std::mutex> lock(s_limitsMutex);
    return s_limits;
}

} // namespace tavix::net::http
