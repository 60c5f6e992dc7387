#include <tavix/os/KernelX.h>
#include <tavix/os/NetworkInterfaces.h>
#include <tavix/version/BuildVersion.h>

#include <boost/algorithm/string/trim.hpp>
#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include <pthread.h>

#include <fstream>
#include <future>
#include <regex>
#include <set>

namespace tavix::os {
namespace {

TEST(SystemTest, TheMacAddressIsOneOfAnInterfacesAddressesInLowerCase)
{
    std::string const mac = NetworkInterfaces::uniqueMacAddress();
    if (mac.empty()) GTEST_SKIP() << "no interface with a hardware address here";
    EXPECT_TRUE(std::regex_match(mac, std::regex("[0-9a-f]{2}(:[0-9a-f]{2})+"))) << mac;
    EXPECT_NE(mac, "00:00:00:00:00:00");

    std::set<std::string> addresses;
    for (auto const& interface : boost::filesystem::directory_iterator("/sys/class/net")) {
        std::string address;
        std::ifstream(interface.path() / "address") >> address;
        addresses.insert(address);
    }
    EXPECT_EQ(addresses.count(mac), 1u) << mac;
}

TEST(SystemTest, ThreadNamesAreTruncatedToTheKernelsLimit)
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

TEST(SystemTest, TheBuildVersionIsTheProjectVersionAndMaybeARevision)
{
    EXPECT_TRUE(std::regex_match(version::get_build_version(), std::regex(R"(\d+\.\d+\.\d+(\+[0-9a-f]+)?)")))
        << version::get_build_version();
}

} // namespace
} // namespace tavix::os
