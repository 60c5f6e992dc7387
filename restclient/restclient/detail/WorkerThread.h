// Starting a worker thread (internal): the workers run with a stack of 1,024,000 bytes rounded
// up to whole pages, and carry a name the kernel shows.
#pragma once

#include <tavix/os/KernelX.h>

#include <boost/function.hpp>
#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/thread.hpp>

#include <string>

#include <unistd.h>

namespace tavix::restclient::detail {

inline boost::shared_ptr<boost::thread> startWorker(boost::function<void()> body, std::string const& name)
{
    constexpr std::size_t stackSize = 1024000;
    auto const page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    boost::thread::attributes attributes;
    attributes.set_stack_size((stackSize + page - 1) / page * page);
    auto thread = boost::make_shared<boost::thread>(attributes, std::move(body));
    os::KernelX::SetThreadDescription(*thread, name);
    return thread;
}

} // namespace tavix::restclient::detail
