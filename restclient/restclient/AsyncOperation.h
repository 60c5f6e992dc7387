// Turns one asynchronous request into a blocking call for a worker thread: Start() before
// sending, Done(result) in the completion, WaitUntilDone() to block until the result is in.
#pragma once

#include <restclient/Export.h>

#include <boost/asio/io_context.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include <cstdint>

namespace tavix::restclient {

class RESTCLIENT_EXPORT AsyncOperation {
public:
    enum Result : std::int32_t { Success = 0, Retry = 1, Failed = 2, Pending = 4 };

    AsyncOperation() = default;
    AsyncOperation(AsyncOperation const&) = delete;
    AsyncOperation& operator=(AsyncOperation const&) = delete;

    void Start();
    void Done(Result result);

    // For when another thread runs the io_context.
    Result WaitUntilDone();
    // Runs `io` on this thread in 100 ms slices until the result is in; restarts a stopped
    // context. There is no overall time-out. Both waits are interruption points.
    Result WaitUntilDone(boost::asio::io_context& io);

private:
    Result result = Failed;
    boost::mutex m_mutex;
    boost::condition_variable m_condition;
};

} // namespace tavix::restclient
