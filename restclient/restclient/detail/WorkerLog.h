// Logging of the two workers: the maker's logger is set up before the first line, and every
// line goes to the root logger with its level tested first (the LOG4CPLUS_* macros do that).
// Each line holds a logger guard, so that a worker still running while the process exits
// never touches log4cplus after it has been torn down.
#pragma once

#include <restclient/detail/MaskToken.h>

#include <tavix/Logger.h>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

namespace tavix::restclient::detail {

inline log4cplus::Logger workerLogger()
{
    if (!tavix::Logger::hasBeenInitialized()) tavix::Logger::initialize();
    return log4cplus::Logger::getRoot();
}

inline bool debugEnabled()
{
    tavix::Logger::Guard guard;
    return guard && workerLogger().isEnabledFor(log4cplus::DEBUG_LOG_LEVEL);
}

} // namespace tavix::restclient::detail

#define WORKER_LOG(level, text)                                                                                        \
    do {                                                                                                               \
        if (::tavix::Logger::Guard guard{}) LOG4CPLUS_##level(::tavix::restclient::detail::workerLogger(), text);      \
    } while (0)
#define WORKER_LOG_DEBUG(text) WORKER_LOG(DEBUG, text)
#define WORKER_LOG_INFO(text) WORKER_LOG(INFO, text)
#define WORKER_LOG_WARN(text) WORKER_LOG(WARN, text)
#define WORKER_LOG_ERROR(text) WORKER_LOG(ERROR, text)
