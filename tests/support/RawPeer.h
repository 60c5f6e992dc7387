// A TCP peer on 127.0.0.1 that speaks whatever bytes a test gives it, for faults an HTTP server
// will not commit: a reset in the middle of a head, a head and then silence, a request body it
// holds back from reading. Connections are served one at a time, in arrival order, on a thread
// of its own; the destructor shuts every connection down, so a held client never outlives it.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>

namespace tavix::test {

class RawPeer {
public:
    class Connection {
    public:
        explicit Connection(int fd) : m_fd(fd) {}
        // The request head up to its blank line; empty when the client went away first.
        std::string readHead();
        // `length` body bytes, or nullopt when the client stopped sending before them.
        std::optional<std::string> readBody(std::size_t length);
        void send(std::string const& bytes);
        // Closes with a TCP reset instead of a FIN.
        void reset();
        // Reads and drops whatever comes until the client closes.
        void holdUntilClosed();
        // Reads nothing more, until the client closes: what it still sends stays in the window.
        void waitUntilClosed();

    private:
        int m_fd;
        std::string m_pending; // read past the head
    };
    using Script = std::function<void(Connection&, int index)>;
    enum class After { close, reset, hold };

    explicit RawPeer(Script script);
    // Reads each request (head and Content-Length body), answers `reply`, then does `after`.
    RawPeer(std::string reply, After after);
    RawPeer(RawPeer const&) = delete;
    RawPeer& operator=(RawPeer const&) = delete;
    ~RawPeer();

    unsigned short port() const { return m_port; }
    int connections() const { return m_connections; }

    // The Content-Length of a head, 0 when it has none.
    static std::size_t contentLength(std::string const& head);

private:
    void serve();

    Script m_script;
    int m_listener = -1;
    unsigned short m_port = 0;
    std::atomic<int> m_connections{0};
    std::mutex m_mutex;
    std::set<int> m_open; // guarded by m_mutex, as is m_stopping
    bool m_stopping = false;
    std::thread m_thread;
};

} // namespace tavix::test
