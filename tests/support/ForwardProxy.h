// A forward HTTP proxy on 127.0.0.1 (any free port) for the tests, on a thread of its own:
// CONNECT opens a tunnel that relays bytes both ways; an absolute-form request goes on to its
// origin in origin-form, without the proxy's own header fields. It records what it was asked and
// what it let through, and can demand Basic credentials, refuse everything, or never answer.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace tavix::test {

class ForwardProxy {
public:
    struct Options {
        std::string credentials; // "user:password" to demand (407 without them); empty: none
        unsigned refuseWith = 0; // answer every request with this status instead
        bool silent = false;     // read requests, never answer
    };
    struct Seen {
        std::string method;
        std::string target;
        std::optional<std::string> proxyAuthorization;
        bool passed = false; // tunnelled or forwarded to its origin
    };

    ForwardProxy();
    explicit ForwardProxy(Options options);
    ForwardProxy(ForwardProxy const&) = delete;
    ForwardProxy& operator=(ForwardProxy const&) = delete;
    ~ForwardProxy();

    // "http://127.0.0.1:port", with "userinfo@" before the host when given.
    std::string url(std::string const& userinfo = {}) const;
    std::vector<Seen> requests() const;
    std::size_t passed() const;

private:
    class Session;
    void accept();
    void record(Seen seen);

    Options const m_options;
    boost::asio::io_context m_io;
    boost::asio::ip::tcp::acceptor m_acceptor;
    unsigned short const m_port; // read here, not from the acceptor its thread works on
    mutable std::mutex m_mutex;
    std::vector<Seen> m_seen;
    std::vector<std::shared_ptr<Session>> m_silenced; // held open, never answered
    std::thread m_thread;
};

} // namespace tavix::test
