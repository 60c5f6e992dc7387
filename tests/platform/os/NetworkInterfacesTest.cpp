#include <tavix/os/NetworkInterfaces.h>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <set>

namespace tavix::os {
namespace {

TEST(NetworkInterfaces, TheMacAddressIsOneOfAnInterfacesAddressesInLowerCase)
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

} // namespace
} // namespace tavix::os
