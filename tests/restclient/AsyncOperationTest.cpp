#include <restclient/AsyncOperation.h>

#include <gtest/gtest.h>

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/thread/thread.hpp>

#include <atomic>
#include <chrono>
#include <thread>

namespace tavix::restclient {
namespace {

TEST(AsyncOperation, ADoneBeforeTheWaitIsNotLost)
{
    AsyncOperation op;
    op.Start();
    op.Done(AsyncOperation::Retry);
    EXPECT_EQ(op.WaitUntilDone(), AsyncOperation::Retry);
    boost::asio::io_context io;
    EXPECT_EQ(op.WaitUntilDone(io), AsyncOperation::Retry);
}

TEST(AsyncOperation, WaitsForAnotherThreadRunningTheContext)
{
    AsyncOperation op;
    op.Start();
    boost::asio::io_context io;
    boost::asio::steady_timer timer(io, std::chrono::milliseconds(50));
    timer.async_wait([&](boost::system::error_code const&) { op.Done(AsyncOperation::Success); });
    std::thread runner([&] { io.run(); });
    EXPECT_EQ(op.WaitUntilDone(), AsyncOperation::Success);
    runner.join();
}

TEST(AsyncOperation, RestartsAStoppedContextToRunThePendingCompletion)
{
    boost::asio::io_context io;
    io.run(); // no work: the context is now stopped
    ASSERT_TRUE(io.stopped());

    AsyncOperation op;
    op.Start();
    boost::asio::post(io, [&] { op.Done(AsyncOperation::Failed); });
    EXPECT_EQ(op.WaitUntilDone(io), AsyncOperation::Failed);
}

TEST(AsyncOperation, RunsTimersThatCompleteInLaterSlices)
{
    boost::asio::io_context io;
    AsyncOperation op;
    op.Start();
    boost::asio::steady_timer timer(io, std::chrono::milliseconds(250));
    timer.async_wait([&](boost::system::error_code const&) { op.Done(AsyncOperation::Success); });
    EXPECT_EQ(op.WaitUntilDone(io), AsyncOperation::Success);
}

TEST(AsyncOperation, AWaitWithoutDoneLastsUntilTheThreadIsInterrupted)
{
    boost::asio::io_context io;
    AsyncOperation op;
    op.Start();
    std::atomic<bool> interrupted{false};
    std::atomic<bool> returned{false};
    // Run by the waiter's loop: from then on the waiter is inside WaitUntilDone.
    std::atomic<bool> waiting{false};
    boost::asio::post(io, [&] { waiting = true; });
    boost::thread waiter([&] {
        try {
            op.WaitUntilDone(io);
            returned = true;
        } catch (boost::thread_interrupted const&) {
            interrupted = true;
        }
    });
    for (int i = 0; i < 1000 && !waiting; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(waiting);
    EXPECT_FALSE(returned);
    waiter.interrupt();
    ASSERT_TRUE(waiter.try_join_for(boost::chrono::seconds(5)));
    EXPECT_TRUE(interrupted);
    EXPECT_FALSE(returned);

    // The mutex was released on the way out: the object still works.
    op.Done(AsyncOperation::Success);
    EXPECT_EQ(op.WaitUntilDone(), AsyncOperation::Success);
}

} // namespace
} // namespace tavix::restclient
