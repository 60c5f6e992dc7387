/// @file
/// The build's version text, fixed when the platform library is built.
#pragma once

#include <tavix/Export.h>

#include <string>

namespace tavix::version {

/// `major.minor.patch+revision` (the git revision at configure time), or without the revision
/// outside a git checkout. The uploader stores it with every file (`buildnumber`).
TAVIX_EXPORT std::string get_build_version();

} // namespace tavix::version
