// The name the device's certificate was issued to.
#pragma once

#include <tavix/Export.h>

#include <string>

namespace tavix::controller {

class TAVIX_EXPORT CommonName {
public:
    // common_name of the controller settings, read afresh at each call; empty when unset or unreadable.
    static std::string GetCommonName();
};

} // namespace tavix::controller
