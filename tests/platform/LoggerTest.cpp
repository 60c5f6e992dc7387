#include <tavix/Logger.h>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

namespace tavix {
namespace {

// One configuration per process: each test below is about the first initialisation.
TEST(LoggerTest, ConcurrentFirstCallsConfigureOnceFromThePropertiesFile)
{
    auto const dir = boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("logger-%%%%-%%%%");
    boost::filesystem::create_directory(dir);
    std::string const log = (dir / "out.log").string();
    std::ofstream((dir / "log.properties").string()) << "log4cplus.rootLogger=DEBUG, F\n"
                                                        "log4cplus.appender.F=log4cplus::FileAppender\n"
                                                        "log4cplus.appender.F.File="
                                                     << log
                                                     << "\n"
                                                        "log4cplus.appender.F.ImmediateFlush=true\n"
                                                        "log4cplus.appender.F.layout=log4cplus::PatternLayout\n"
                                                        "log4cplus.appender.F.layout.ConversionPattern=%p %m%n\n";
    ::setenv("TAVIX_LOG_CONFIG", (dir / "log.properties").c_str(), 1);

    EXPECT_FALSE(Logger::hasBeenInitialized());
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) threads.emplace_back([] { Logger::initialize(); });
    for (auto& thread : threads) thread.join();
    EXPECT_TRUE(Logger::hasBeenInitialized());

    LOG4CPLUS_DEBUG(log4cplus::Logger::getRoot(), "[Test] configured");
    std::ostringstream written;
    written << std::ifstream(log).rdbuf();
    EXPECT_EQ(written.str(), "DEBUG [Test] configured\n") << "one appender, from the file";
    boost::filesystem::remove_all(dir);
}

// log4cplus tears itself down in its static destructors: a site that logs through a guard
// must not crash a process exiting under it. Unguarded, about every second run crashed here.
TEST(LoggerDeathTest, TheProcessExitsCleanlyWhileAnotherThreadLogsThroughAGuard)
{
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    for (int run = 0; run < 5; ++run) {
        EXPECT_EXIT(
            {
                ::unsetenv("TAVIX_LOG_CONFIG");
                Logger::initialize();
                log4cplus::Logger::getRoot().setLogLevel(log4cplus::TRACE_LOG_LEVEL);
                std::thread([] {
                    for (;;) {
                        if (Logger::Guard guard{}) LOG4CPLUS_TRACE(log4cplus::Logger::getRoot(), "[Test] logging");
                    }
                }).detach();
                if (Logger::Guard guard{}) LOG4CPLUS_INFO(log4cplus::Logger::getRoot(), "[Test] exiting");
                std::exit(0);
            },
            ::testing::ExitedWithCode(0), "exiting")
            << run;
    }
}

} // namespace
} // namespace tavix
