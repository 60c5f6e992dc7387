#include <tavix/os/NetworkInterfaces.h>

#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>

#include <algorithm>
#include <cstdio>

namespace tavix::os {

namespace {

std::string macText(unsigned char const* begin, unsigned char const* end)
{
    std::string text;
    for (auto const* octet = begin; octet != end; ++octet) {
        char hex[4];
        std::snprintf(hex, sizeof hex, octet == begin ? "%02x" : ":%02x", *octet);
        text += hex;
    }
    return text;
}

} // namespace

std::string NetworkInterfaces::uniqueMacAddress()
{
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) return {};
    std::string found;
    for (ifaddrs const* entry = list; entry && found.empty(); entry = entry->ifa_next) {
        if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_PACKET || (entry->ifa_flags & IFF_LOOPBACK)) continue;
        auto const& link = *reinterpret_cast<sockaddr_ll const*>(entry->ifa_addr);
        auto const* const end = link.sll_addr + std::min<std::size_t>(link.sll_halen, sizeof link.sll_addr);
        if (std::all_of(link.sll_addr, end, [](unsigned char b) { return b == 0; })) continue;
        found = macText(link.sll_addr, end);
    }
    ::freeifaddrs(list);
    return found;
}

} // namespace tavix::os
