// The files an upload queue holds: taking a file in (copy, hard link or reference), checking it
// before it is sent, letting it go, and sweeping what a crash left behind.
#pragma once

#include <restclient/storage/UploadQueue.h>
#include <restclient/storage/detail/QueueJournal.h>

#include <boost/filesystem/path.hpp>
#include <boost/system/error_code.hpp>

#include <string>
#include <vector>

namespace tavix::restclient::storage::detail {

// Holds `file` as `mode` says under `filesDir` (a directory per entry keeps the file's own name,
// which the upload sends as "_filename"); fills the file's absolute path, the held path, size,
// time, MD5 and the source's identity into `e`. Copies and links are fsync'd, with their directories, before it
// returns.
bool holdFile(boost::filesystem::path const& file, HoldMode mode, boost::filesystem::path const& filesDir,
              JournalEntry& e, boost::system::error_code& ec, std::string& detail);

// Why the held file cannot be sent as it was enqueued, with the uploader's code for it (41 it
// cannot be read, 45 not a regular file, 46 changed); code 0 when it can be sent.
struct HeldProblem {
    int code = 0;
    std::string message;
};
HeldProblem heldFileProblem(JournalEntry const& e);

// Removes a copy or link with its directory; a reference is left alone.
void releaseHeld(JournalEntry const& e, boost::filesystem::path const& filesDir);

// Deletes the program's file after delivery, when it is still the file that was enqueued.
void deleteSource(JournalEntry const& e);

// A lock on the spool's "enqueue.lock": shared while a file is taken in, exclusive (and not
// waited for) while orphans are swept. False when not taken.
class SpoolLock {
public:
    enum Kind { shared, exclusive };
    SpoolLock(boost::filesystem::path const& spool, Kind kind);
    ~SpoolLock();
    SpoolLock(SpoolLock const&) = delete;
    SpoolLock& operator=(SpoolLock const&) = delete;
    explicit operator bool() const { return m_locked; }

private:
    int m_fd;
    bool m_locked = false;
};

// Removes entry directories under `filesDir` that no held path names (a crash between the copy and
// the journal's commit, or between the commit and the removal). Only under an exclusive SpoolLock.
void sweepOrphans(boost::filesystem::path const& filesDir, std::vector<std::string> const& held);

} // namespace tavix::restclient::storage::detail
