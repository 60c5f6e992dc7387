#include <restclient/authentication/AuthRenew.h>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <optional>

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
    std::string const properties = (boost::filesystem::temp_directory_path() /
                                    boost::filesystem::unique_path("renew-log-%%%%-%%%%.properties")).string();
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

} // namespace
} // namespace tavix::restclient::authentication
