// One-time set-up of log4cplus for the process. The properties file named by TAVIX_LOG_CONFIG
// is used when set; otherwise the root logger gets a console appender at INFO.
#pragma once

#include <tavix/Export.h>

namespace tavix {

class TAVIX_EXPORT Logger {
public:
    static bool hasBeenInitialized();
    // Safe to call from several threads; only the first call configures.
    static void initialize();

    // Held by a log site while it uses log4cplus; initialises the logger first when needed.
    // log4cplus destroys its state in its own static destructors, while a thread that is never
    // stopped may still be logging: once the process has begun to exit, a guard is false and
    // the site must not touch log4cplus. The exit waits for guards already held.
    //     if (tavix::Logger::Guard guard{}) LOG4CPLUS_INFO(log4cplus::Logger::getRoot(), ...);
    class TAVIX_EXPORT Guard {
    public:
        Guard();
        Guard(Guard const&) = delete;
        Guard& operator=(Guard const&) = delete;
        ~Guard();
        explicit operator bool() const { return m_open; }

    private:
        bool m_open;
    };
};

} // namespace tavix
