// An HTTP/1.1 upload target that reads each body in large reads and throws it away, on a thread
// of its own on 127.0.0.1: what a sender achieves against it is the sender's speed, never the
// target's. One request per connection; "Expect: 100-continue" is answered at once.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

namespace tavix::bench {

class BareSink {
public:
    BareSink(); // listens on a free port; throws std::system_error when it can't
    BareSink(BareSink const&) = delete;
    BareSink& operator=(BareSink const&) = delete;
    ~BareSink();

    std::string url() const;
    // The body length of the last request read to its end, since the previous call; 0 if none.
    std::uint64_t takeBodyBytes() { return m_lastBody.exchange(0); }

private:
    void serve();
    void answer(int connection);

    int m_listener = -1;
    unsigned short m_port = 0;
    std::atomic<std::uint64_t> m_lastBody{0};
    std::thread m_thread;
};

} // namespace tavix::bench
