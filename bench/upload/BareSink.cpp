#include <bench/upload/BareSink.h>

#include <boost/algorithm/string/case_conv.hpp>

#include <fmt/format.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <system_error>
#include <vector>

namespace tavix::bench {

namespace {

constexpr std::size_t kReadSize = 1 << 20;

std::system_error lastError(char const* what) { return {errno, std::generic_category(), what}; }

bool sendAll(int connection, std::string_view text)
{
    while (!text.empty()) {
        ssize_t const sent = ::send(connection, text.data(), text.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) return false;
        text.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

// The value of header `name` (lowercase, with its colon) in a lowercased head, or "".
std::string headerValue(std::string const& head, std::string const& name)
{
    std::size_t at = head.find("\r\n" + name);
    if (at == std::string::npos) return {};
    at += 2 + name.size();
    std::size_t const end = head.find("\r\n", at);
    std::string value = head.substr(at, end - at);
    value.erase(0, value.find_first_not_of(" \t"));
    return value;
}

} // namespace

BareSink::BareSink()
{
    m_listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_listener < 0) throw lastError("socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(m_listener, 8) != 0
        || ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        std::system_error const error = lastError("bind/listen");
        ::close(m_listener);
        throw error;
    }
    m_port = ntohs(address.sin_port);
    m_thread = std::thread([this] { serve(); });
}

BareSink::~BareSink()
{
    // Wakes the blocked accept().
    ::shutdown(m_listener, SHUT_RDWR);
    m_thread.join();
    ::close(m_listener);
}

std::string BareSink::url() const { return fmt::format("http://127.0.0.1:{}/sink", m_port); }

void BareSink::serve()
{
    for (;;) {
        int const connection = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            return;
        }
        answer(connection);
        ::close(connection);
    }
}

void BareSink::answer(int connection)
{
    std::vector<char> buffer(kReadSize);
    std::string head;
    std::size_t headEnd = std::string::npos;
    while (headEnd == std::string::npos) {
        ssize_t const got = ::recv(connection, buffer.data(), buffer.size(), 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return;
        head.append(buffer.data(), static_cast<std::size_t>(got));
        headEnd = head.find("\r\n\r\n");
    }
    std::uint64_t const early = head.size() - (headEnd + 4);
    head.resize(headEnd + 2);
    boost::algorithm::to_lower(head);
    std::uint64_t const length = std::strtoull(headerValue(head, "content-length:").c_str(), nullptr, 10);
    if (headerValue(head, "expect:") == "100-continue" && !sendAll(connection, "HTTP/1.1 100 Continue\r\n\r\n")) return;

    std::uint64_t received = early;
    while (received < length) {
        ssize_t const got = ::recv(connection, buffer.data(), buffer.size(), 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return;
        received += static_cast<std::uint64_t>(got);
    }
    m_lastBody = received;
    sendAll(connection, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
}

} // namespace tavix::bench
