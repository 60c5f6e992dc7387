/// @file
/// One-time set-up of log4cplus for the process. The properties file named by TAVIX_LOG_CONFIG
/// is used when set; otherwise the root logger gets a console appender at INFO.
#pragma once

#include <tavix/Export.h>

namespace tavix {

/// @brief The process's log set-up, shared by the workers (the REST clients log nothing).
///
/// A TAVIX_LOG_CONFIG file that cannot be read falls back to the console (stderr, INFO), so that
/// the process is never left without a log.
class TAVIX_EXPORT Logger {
public:
    /// True once `initialize` has configured log4cplus.
    static bool hasBeenInitialized();
    /// Configures log4cplus as the file description says. Safe to call from several threads;
    /// only the first call configures.
    static void initialize();

    /// @brief Held by a log site while it uses log4cplus; initialises the logger first when needed.
    ///
    /// log4cplus destroys its state in its own static destructors, while a thread that is never
    /// stopped may still be logging: once the process has begun to exit, a guard is false and
    /// the site must not touch log4cplus. The exit waits for guards already held.
    /// @code
    /// if (tavix::Logger::Guard guard{}) LOG4CPLUS_INFO(log4cplus::Logger::getRoot(), ...);
    /// @endcode
    class TAVIX_EXPORT Guard {
    public:
        /// Takes the guard; false (see `operator bool`) once the process has begun to exit.
        Guard();
        Guard(Guard const&) = delete;
        Guard& operator=(Guard const&) = delete;
        /// Lets go: an exit that waits for this guard may go on.
        ~Guard();
        /// True when log4cplus may be used while this guard lives.
        explicit operator bool() const { return m_open; }

    private:
        bool m_open;
    };
};

} // namespace tavix
