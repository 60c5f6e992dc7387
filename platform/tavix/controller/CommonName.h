/// @file
/// The name the device's certificate was issued to.
#pragma once

#include <tavix/Export.h>

#include <string>

namespace tavix::controller {

/// @brief The device's common name, which the uploader stores with every file (`_commonname`).
class TAVIX_EXPORT CommonName {
public:
    /// `common_name` of the controller settings, read afresh at each call; empty when unset or
    /// unreadable.
    static std::string GetCommonName();
};

} // namespace tavix::controller
