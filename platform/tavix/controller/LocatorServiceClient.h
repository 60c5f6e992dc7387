/// @file
/// Where the device's Locator service is, as provisioned.
#pragma once

#include <tavix/Export.h>

#include <string>

namespace tavix::controller {

/// @brief The provisioned Locator address, the uploader's first REST step.
class TAVIX_EXPORT LocatorServiceClient {
public:
    /// `locator_url` of the controller settings, read afresh at each call (a re-provisioned device
    /// needs no restart); empty when unset or unreadable.
    static std::string LocatorServiceUrl();
};

} // namespace tavix::controller
