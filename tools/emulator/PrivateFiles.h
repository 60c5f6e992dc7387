// What the emulator keeps is its own from the moment it exists: the data directory 0700, the
// files in it (stored bodies, the signing key, certificates) 0600. A data directory that another
// user owns, or may write to, could feed it planted objects or keys: it is refused.
#pragma once

#include <boost/filesystem/path.hpp>

#include <string>

namespace tavix::emulator {

// Creates `directory` (missing parents as usual, itself 0700), or checks the one that is there.
// Throws std::runtime_error naming the directory and what is wrong.
void makePrivateDirectory(boost::filesystem::path const& directory);

// Writes `content` whole to `path` through a temporary file created 0600, then renamed over it.
// Throws std::runtime_error when it cannot.
void writePrivateFile(boost::filesystem::path const& path, std::string const& content);

} // namespace tavix::emulator
