#include <tavix/os/KernelX.h>

#include <pthread.h>

namespace tavix::os {

void KernelX::SetThreadDescription(boost::thread& thread, std::string const& name)
{
    if (!thread.joinable()) return;
    // The kernel keeps 15 bytes and refuses a longer name outright.
    ::pthread_setname_np(thread.native_handle(), name.substr(0, 15).c_str());
}

} // namespace tavix::os
