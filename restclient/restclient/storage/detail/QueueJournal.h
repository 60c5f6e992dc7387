// The upload queue's journal: every entry and the totals, in SQLite (WAL, synchronous commits), so
// that what a call reported done survives a crash, and several processes can share one spool.
// One connection per journal object, used under its own mutex.
#pragma once

#include <restclient/storage/UploadQueue.h>

#include <boost/system/error_code.hpp>

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

struct sqlite3;

namespace tavix::restclient::storage::detail {

// An entry as the journal keeps it: the public record and what only the runner needs.
struct JournalEntry {
    QueueEntry entry;
    std::string held;            // the file the upload sends: in the spool, or the program's own
    std::int64_t mtimeNs = 0;    // the held file's, when it was enqueued
    std::uint64_t sourceDev = 0; // the program's file, to delete it after delivery only if it is the same
    std::uint64_t sourceIno = 0;
    int failures = 0; // transient failures in a row, for the back-off
};

// What a quota check found, before anything is inserted.
struct QuotaLimits {
    std::uint64_t bytes = 0;   // 0: none
    std::uint64_t entries = 0; // 0: none
    bool dropOldest = false;
};

class QueueJournal {
public:
    // Opens or creates `file`; null with `ec` and `detail` set when it is not a usable database.
    static std::unique_ptr<QueueJournal> open(std::string const& file, std::chrono::milliseconds busyTimeout,
                                              boost::system::error_code& ec, std::string& detail);
    ~QueueJournal();

    // Inserts `e` (its id is assigned) unless the quota refuses it; with `dropOldest`, the oldest
    // entries not being sent are removed to make room and returned in `dropped`.
    bool insert(JournalEntry& e, QuotaLimits const& quota, std::vector<JournalEntry>& dropped,
                boost::system::error_code& ec, std::string& detail);
    // True when an entry of `size` held bytes would fit without dropping anything.
    bool fits(std::uint64_t heldBytes, QuotaLimits const& quota, boost::system::error_code& ec);

    // The next due pending entry (by `order`), marked sending with its attempt counted (unless it
    // is in doubt); none when nothing is due.
    std::optional<JournalEntry> claimDue(std::int64_t now, QueueOrder order, boost::system::error_code& ec);
    // The soonest next attempt of a pending entry, if any.
    std::optional<std::int64_t> nextDue(boost::system::error_code& ec);
    // Entries left sending by a runner that is gone become pending and in doubt; returns how many.
    int recoverSending(boost::system::error_code& ec);

    // The entry leaves the journal, counted under `total` ("delivered", "expired", "dropped");
    // `lazy`: without a sync of its own.
    bool remove(std::int64_t id, char const* total, bool lazy, boost::system::error_code& ec);
    // Back to pending, due at `next`.
    bool reschedule(JournalEntry const& e, std::int64_t next, boost::system::error_code& ec);
    bool markFailed(JournalEntry const& e, boost::system::error_code& ec);
    // Pending or failed entries enqueued before `cutoff`, removed and counted as expired.
    std::vector<JournalEntry> expire(std::int64_t cutoff, boost::system::error_code& ec);

    std::vector<JournalEntry> list(std::optional<EntryState> state, boost::system::error_code& ec);
    std::optional<JournalEntry> find(std::int64_t id, boost::system::error_code& ec);
    QueueCounts counts(boost::system::error_code& ec);
    // A failed or pending entry (all failed ones with id 0) due now, its back-off reset.
    std::uint64_t retry(std::int64_t id, std::int64_t now, boost::system::error_code& ec);
    // Removes an entry that is not being sent; returns it.
    std::optional<JournalEntry> drop(std::int64_t id, boost::system::error_code& ec);
    // Every held path, for the sweep of files no entry owns.
    std::vector<std::string> heldFiles(boost::system::error_code& ec);

private:
    explicit QueueJournal(sqlite3* db);
    // Runs `work` in one write transaction (BEGIN IMMEDIATE ... COMMIT), rolled back on failure.
    bool transaction(std::function<bool()> const& work, boost::system::error_code& ec);
    bool exec(char const* sql, boost::system::error_code& ec);
    boost::system::error_code lastError(int rc) const;

    sqlite3* m_db;
    std::mutex m_mutex;
};

} // namespace tavix::restclient::storage::detail
