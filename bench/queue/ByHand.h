// What a program does by hand to keep its own durable copy of a file, the peers of the queue's
// enqueue: the bytes read and written in this process, the copy fsync'd and then its directory,
// so that both the data and the new name survive a power cut; or a hard link and its directory
// fsync'd. Each throws std::runtime_error with the path and errno text on failure.
#pragma once

#include <boost/filesystem/path.hpp>

namespace tavix::bench {

// open/read/write/fsync of a new file `to`, then fsync of its directory; the same 256 KiB
// buffer as the queue's copy.
void durableCopy(boost::filesystem::path const& from, boost::filesystem::path const& to);
// link(), then fsync of the new name's directory.
void durableLink(boost::filesystem::path const& from, boost::filesystem::path const& to);
// Writes 4 KiB to a new file in `dir` and fsyncs it: what one synchronous commit costs this
// disk at least. Removes the file again.
void smallSyncedWrite(boost::filesystem::path const& dir);

} // namespace tavix::bench
