// What the operating system tells about this device and its threads.
#pragma once

#include <platform/Export.h>

#include <boost/thread/thread.hpp>

#include <string>

namespace tavix::system {

class TAVIX_EXPORT NetworkInterfaces {
public:
    // The MAC address of the first non-loopback interface that has one, as "aa:bb:cc:dd:ee:ff";
    // empty when there is none.
    static std::string uniqueMacAddress();
};

class TAVIX_EXPORT KernelX {
public:
    // Names the thread for the kernel (ps, top, gdb); truncated to the kernel's 15 characters.
    static void SetThreadDescription(boost::thread& thread, std::string const& name);
};

} // namespace tavix::system
