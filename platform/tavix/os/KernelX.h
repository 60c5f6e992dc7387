// What the kernel is told about this process's threads.
#pragma once

#include <tavix/Export.h>

#include <boost/thread/thread.hpp>

#include <string>

namespace tavix::os {

class TAVIX_EXPORT KernelX {
public:
    // Names the thread for the kernel (ps, top, gdb); truncated to the kernel's 15 characters.
    static void SetThreadDescription(boost::thread& thread, std::string const& name);
};

} // namespace tavix::os
