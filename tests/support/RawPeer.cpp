#include <tests/support/RawPeer.h>

#include <boost/algorithm/string/case_conv.hpp>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace tavix::test {

namespace {

constexpr std::size_t kMaxHead = 1 << 20;

} // namespace

std::string RawPeer::Connection::readHead()
{
    char buffer[4096];
    std::size_t end;
    while ((end = m_pending.find("\r\n\r\n")) == std::string::npos && m_pending.size() < kMaxHead) {
        ssize_t const n = ::recv(m_fd, buffer, sizeof buffer, 0);
        if (n <= 0) return {};
        m_pending.append(buffer, static_cast<std::size_t>(n));
    }
    if (end == std::string::npos) return {};
    std::string head = m_pending.substr(0, end + 4);
    m_pending.erase(0, end + 4);
    return head;
}

std::optional<std::string> RawPeer::Connection::readBody(std::size_t length)
{
    std::string body = std::move(m_pending);
    m_pending.clear();
    char buffer[64 * 1024];
    while (body.size() < length) {
        ssize_t const n = ::recv(m_fd, buffer, std::min(sizeof buffer, length - body.size()), 0);
        if (n <= 0) return std::nullopt;
        body.append(buffer, static_cast<std::size_t>(n));
    }
    return body;
}

void RawPeer::Connection::send(std::string const& bytes)
{
    for (std::size_t sent = 0; sent < bytes.size();) {
        ssize_t const n = ::send(m_fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) return;
        sent += static_cast<std::size_t>(n);
    }
}

void RawPeer::Connection::reset()
{
    linger const abortive{1, 0};
    ::setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive); // the close resets
}

void RawPeer::Connection::holdUntilClosed()
{
    char buffer[4096];
    while (::recv(m_fd, buffer, sizeof buffer, 0) > 0) {}
}

void RawPeer::Connection::waitUntilClosed()
{
    pollfd hangUp{m_fd, POLLRDHUP, 0};
    while (::poll(&hangUp, 1, -1) < 0 && errno == EINTR) {}
}

std::size_t RawPeer::contentLength(std::string const& head)
{
    std::string const lower = boost::algorithm::to_lower_copy(head);
    std::size_t const at = lower.find("\r\ncontent-length:");
    return at == std::string::npos ? 0 : std::stoul(lower.substr(at + 17));
}

RawPeer::RawPeer(std::string reply, After after)
    : RawPeer([reply = std::move(reply), after](Connection& connection, int) {
          std::string const head = connection.readHead();
          if (head.empty() || !connection.readBody(contentLength(head))) return;
          connection.send(reply);
          if (after == After::reset) return connection.reset();
          if (after == After::hold) return connection.holdUntilClosed();
      })
{}

RawPeer::RawPeer(Script script) : m_script(std::move(script))
{
    m_listener = ::socket(AF_INET, SOCK_STREAM, 0);
    // A small receive window: a client whose body is held back stops sending early.
    int const window = 64 * 1024;
    ::setsockopt(m_listener, SOL_SOCKET, SO_RCVBUF, &window, sizeof window);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(m_listener, 16) != 0
        || ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        ::close(m_listener);
        throw std::runtime_error("RawPeer: cannot listen on 127.0.0.1");
    }
    m_port = ntohs(address.sin_port);
    m_thread = std::thread([this] { serve(); });
}

RawPeer::~RawPeer()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
        for (int fd : m_open) ::shutdown(fd, SHUT_RDWR);
    }
    ::shutdown(m_listener, SHUT_RDWR);
    m_thread.join();
    ::close(m_listener);
}

void RawPeer::serve()
{
    for (int index = 0;; ++index) {
        int const fd = ::accept(m_listener, nullptr, nullptr);
        if (fd < 0) return;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_stopping) return (void)::close(fd);
            m_open.insert(fd);
        }
        ++m_connections;
        Connection connection(fd);
        m_script(connection, index);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_open.erase(fd);
        }
        ::close(fd);
    }
}

} // namespace tavix::test
