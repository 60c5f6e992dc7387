#include <restclient/authentication/AuthRenew.h>

#include <tests/support/RawPeer.h>
#include <tests/support/ScopedControllerConfig.h>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <thread>

namespace tavix::restclient::authentication {
namespace {

int threadsNamed(std::string const& name)
{
    int count = 0;
    for (boost::filesystem::directory_iterator it("/proc/self/task"), end; it != end; ++it) {
        std::string comm;
        std::getline(std::ifstream((it->path() / "comm").string()), comm);
        count += comm == name;
    }
    return count;
}

TEST(AuthRenew, CountsLiveObjectsPerKeyWithOneWorkerForTheProcess)
{
    std::optional<AuthRenew> first("key-a");
    std::optional<AuthRenew> second("key-a");
    AuthRenew other("key-b");
    EXPECT_EQ(AuthRenew::WatchCount("key-a"), 2);
    EXPECT_EQ(AuthRenew::WatchCount("key-b"), 1);
    first.reset();
    EXPECT_EQ(AuthRenew::WatchCount("key-a"), 1);
    second.reset();
    EXPECT_EQ(AuthRenew::WatchCount("key-a"), 0);
    EXPECT_EQ(AuthRenew::WatchCount("key-b"), 1);
    // The worker outlives its objects and serves later ones.
    AuthRenew again("key-a");
    EXPECT_EQ(AuthRenew::WatchCount("key-a"), 1);
    EXPECT_EQ(threadsNamed("AuthRenew"), 1);
}

TEST(AuthRenew, RenewsOnlyTokensExpiredMoreThan59SecondsAgo)
{
    std::time_t const issued = 1700000000;
    controller::AuthToken const token("t", "Bearer", "", issued, 600);
    std::time_t const end = issued + 600;
    EXPECT_FALSE(AuthRenew::IsDue(&token, issued));
    EXPECT_FALSE(AuthRenew::IsDue(&token, end));
    EXPECT_FALSE(AuthRenew::IsDue(&token, end + 59));
    EXPECT_TRUE(AuthRenew::IsDue(&token, end + 60));
    EXPECT_TRUE(AuthRenew::IsDue(nullptr, issued));
}

// In a process of its own (re-executed, so that the libraries' own threads are there as in any
// process): the worker, started just before, logs while exit() tears the statics down.
TEST(AuthRenew, ProcessWithARenewerExitsCleanly)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::string const properties =
        (boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("renew-log-%%%%-%%%%.properties"))
            .string();
    std::ofstream(properties) << "log4cplus.rootLogger=DEBUG, E\n"
                                 "log4cplus.appender.E=log4cplus::ConsoleAppender\n"
                                 "log4cplus.appender.E.logToStdErr=true\n";
    ::setenv("TAVIX_LOG_CONFIG", properties.c_str(), 1);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EXIT(
            {
                static AuthRenew renewer("exit-key");
                std::exit(0);
            },
            ::testing::ExitedWithCode(0), "");
    }
    boost::filesystem::remove(properties);
}

// A renewal in flight against an auth service that never answers is given up at exit, not
// waited for to its one-minute time-out; under the sanitizers, nothing used after exit freed it.
TEST(AuthRenew, ExitDuringARenewalIsQuick)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    tavix::test::RawPeer silent("", tavix::test::RawPeer::After::hold);
    tavix::test::ScopedControllerConfig config{"auth_url = http://127.0.0.1:" + std::to_string(silent.port())
                                               + "/oauth/token\n"};
    auto const start = std::chrono::steady_clock::now();
    EXPECT_EXIT(
        {
            static AuthRenew renewer("renewing-at-exit");
            // The first pass begins 10 s after the worker.
            for (int i = 0; i < 3000 && silent.connections() == 0; ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            std::exit(silent.connections() == 0 ? 3 : 0);
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

} // namespace
} // namespace tavix::restclient::authentication
