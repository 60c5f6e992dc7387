#include <tavix/os/KernelX.h>

#include <gtest/gtest.h>

#include <pthread.h>

#include <future>

namespace tavix::os {
namespace {

TEST(KernelX, ThreadNamesAreTruncatedToTheKernelsLimit)
{
    for (auto const& [name, expected] : std::vector<std::pair<std::string, std::string>>{
             {"AuthRenew", "AuthRenew"}, {"FileUploader_worker", "FileUploader_wo"}}) {
        std::promise<void> named;
        std::promise<std::string> seen;
        boost::thread thread([&] {
            named.get_future().wait();
            char buffer[16] = {};
            ::pthread_getname_np(::pthread_self(), buffer, sizeof buffer);
            seen.set_value(buffer);
        });
        KernelX::SetThreadDescription(thread, name);
        named.set_value();
        EXPECT_EQ(seen.get_future().get(), expected);
        thread.join();
    }
}

} // namespace
} // namespace tavix::os
