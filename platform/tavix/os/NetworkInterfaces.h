/// @file
/// What the operating system tells about this device's network interfaces.
#pragma once

#include <tavix/Export.h>

#include <string>

namespace tavix::os {

/// @brief The device's identity on the network, stored with every uploaded file (`_mac`).
class TAVIX_EXPORT NetworkInterfaces {
public:
    /// The MAC address of the first non-loopback interface that has one, as "aa:bb:cc:dd:ee:ff";
    /// empty when there is none.
    static std::string uniqueMacAddress();
};

} // namespace tavix::os
