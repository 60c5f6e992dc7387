#include <restclient/AsyncOperation.h>

#include <boost/chrono/duration.hpp>

#include <chrono>

namespace tavix::restclient {

namespace {
constexpr std::chrono::milliseconds slice{100};
}

void AsyncOperation::Start()
{
    boost::mutex::scoped_lock lock(m_mutex);
    result = Pending;
}

void AsyncOperation::Done(Result r)
{
    boost::mutex::scoped_lock lock(m_mutex);
    result = r;
    m_condition.notify_all();
}

AsyncOperation::Result AsyncOperation::WaitUntilDone()
{
    boost::mutex::scoped_lock lock(m_mutex);
    while (result == Pending) m_condition.wait(lock);
    return result;
}

AsyncOperation::Result AsyncOperation::WaitUntilDone(boost::asio::io_context& io)
{
    for (;;) {
        {
            boost::mutex::scoped_lock lock(m_mutex);
            if (result != Pending) return result;
        }
        if (io.stopped()) io.restart();
        auto const deadline = std::chrono::steady_clock::now() + slice;
        while (io.run_one_until(deadline) != 0) {}
        boost::mutex::scoped_lock lock(m_mutex);
        if (result != Pending) return result;
        m_condition.wait_for(lock, boost::chrono::milliseconds(slice.count()));
    }
}

} // namespace tavix::restclient
