#include <tavix/Logger.h>

#include <log4cplus/config.hxx>
#include <log4cplus/configurator.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <thread>

namespace tavix {

namespace {

std::atomic<bool> s_initialized{false};
std::once_flag s_once;
// Guards held now, and whether the process has begun to exit. Plain atomics: they are never
// destroyed, and sequentially consistent, so that a guard and the exit always see each other.
std::atomic<int> s_guards{0};
std::atomic<bool> s_exiting{false};

// Registered after log4cplus is up, so that it runs before log4cplus's static destructors.
void closeAtExit()
{
    s_exiting = true;
    // Bounded: a log site stuck in a write (or the exiting thread's own guard) must not hang the exit.
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (s_guards > 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void configureConsole()
{
    log4cplus::SharedAppenderPtr console(new log4cplus::ConsoleAppender(true, true));
    console->setLayout(
        std::make_unique<log4cplus::PatternLayout>(LOG4CPLUS_TEXT("%D{%Y-%m-%d %H:%M:%S.%q} %-5p [%t] %m%n")));
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    root.addAppender(console);
    root.setLogLevel(log4cplus::INFO_LOG_LEVEL);
}

// No log4cplus::Initializer and no deinitialize(): nothing here tears log4cplus down early.
void configure()
{
    log4cplus::initialize();
    char const* const file = std::getenv("TAVIX_LOG_CONFIG");
    // A properties file that can't be read would leave the process without any log at all.
    if (file && *file && std::ifstream(file)) {
        log4cplus::PropertyConfigurator::doConfigure(LOG4CPLUS_C_STR_TO_TSTRING(file));
    } else {
        configureConsole();
    }
    std::atexit(closeAtExit);
    s_initialized = true;
}

} // namespace

bool Logger::hasBeenInitialized() { return s_initialized; }

void Logger::initialize() { std::call_once(s_once, configure); }

Logger::Guard::Guard()
{
    ++s_guards;
    m_open = !s_exiting;
    if (m_open && !hasBeenInitialized()) initialize();
}

Logger::Guard::~Guard() { --s_guards; }

} // namespace tavix
