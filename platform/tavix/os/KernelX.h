/// @file
/// What the kernel is told about this process's threads.
#pragma once

#include <tavix/Export.h>

#include <boost/thread/thread.hpp>

#include <string>

namespace tavix::os {

/// @brief Thread names for the kernel, so that the workers can be told apart in ps, top and gdb.
class TAVIX_EXPORT KernelX {
public:
    /// Names the thread for the kernel (ps, top, gdb); truncated to the kernel's 15 characters.
    /// A thread that is not joinable (detached, or not a thread) is left as it is, silently.
    static void SetThreadDescription(boost::thread& thread, std::string const& name);
};

} // namespace tavix::os
