#include <tavix/version/BuildVersion.h>

#ifndef TAVIX_BUILD_VERSION
#error "TAVIX_BUILD_VERSION must be defined by the build"
#endif

namespace tavix::version {

std::string get_build_version() { return TAVIX_BUILD_VERSION; }

} // namespace tavix::version
