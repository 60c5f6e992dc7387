/// @file
/// Turns one asynchronous request into a blocking call for a worker thread: Start() before
/// sending, Done(result) in the completion, WaitUntilDone() to block until the result is in.
#pragma once

#include <restclient/Export.h>

#include <boost/asio/io_context.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include <cstdint>

namespace tavix::restclient {

/// @brief A one-shot result slot that a completion fills and a worker thread waits on.
///
/// Start() and Done() and the waits are safe from any thread. The client object whose callback
/// calls Done() must deliver its completion (see RestClient: one completion per client object),
/// or the wait never ends: neither wait has an overall time-out. The object must outlive the
/// callback that calls Done().
class RESTCLIENT_EXPORT AsyncOperation {
public:
    /// The outcome the completion reports; the meaning of Success, Retry and Failed is the
    /// caller's.
    enum Result : std::int32_t {
        Success = 0, ///< the request did what was asked
        Retry = 1,   ///< worth sending again (the uploader: after a new token)
        Failed = 2,  ///< the state before Start(), and a failure
        Pending = 4  ///< started, no result yet
    };

    AsyncOperation() = default;
    AsyncOperation(AsyncOperation const&) = delete;
    AsyncOperation& operator=(AsyncOperation const&) = delete;

    /// Sets the result to Pending; call before sending, so that an early completion is not lost.
    void Start();
    /// Stores the result and wakes the waits; the last call wins.
    void Done(Result result);

    /// Blocks until the result is not Pending, for when another thread runs the io_context.
    /// Without a Start() it returns Failed at once.
    Result WaitUntilDone();
    /// Runs `io` on this thread in 100 ms slices until the result is in; restarts a stopped
    /// context. There is no overall time-out. Both waits are interruption points
    /// (boost::thread_interrupted). An exception a handler throws inside `io` (a document handler
    /// refusing a malformed answer, say) propagates out of this call.
    Result WaitUntilDone(boost::asio::io_context& io);

private:
    Result result = Failed;
    boost::mutex m_mutex;
    boost::condition_variable m_condition;
};

} // namespace tavix::restclient
