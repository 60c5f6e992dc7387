/// @file
/// Store-and-forward for uploads: files handed to the queue reach the Storage service exactly once,
/// whatever the link, the cloud or the device does in between. The queue lives in a spool
/// directory: the held files and a SQLite journal (WAL, synchronous commits) that is the truth about
/// every entry, so a killed process or a power cut resumes where the journal says.
///
/// Each entry is sent by a `FileUploader` (its behaviour unchanged). A failure is sorted: transient
/// ones go back with exponential back-off and full jitter, permanent ones go to the failed list
/// until an explicit retry. An entry that was being sent when the process died, or whose transfer
/// ended without an answer, may already be stored: before sending it again the runner asks the
/// Storage service (search by name and type, compared on MD5 and size) and never sends it blind.
///
/// What the queue cannot promise: a file deleted or changed before `enqueue` returned, or a file
/// held by reference that changes before it is sent (that entry fails with a clear reason).
#pragma once

#include <restclient/Export.h>

#include <boost/filesystem/path.hpp>
#include <boost/function.hpp>
#include <boost/system/error_code.hpp>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavix::restclient::storage {

// Errors of the queue's own operations (the uploads' failures are entries' codes and messages).
enum class QueueError {
    spoolUnusable = 1, // the spool directory cannot be created, read or written
    journalUnusable,   // the journal cannot be opened: not a database, corrupt, or unreadable
    journalBusy,       // another process held the journal longer than the busy time-out
    runnerActive,      // another runner (in this or another process) sends from this spool
    fileMissing,       // the file to enqueue does not exist
    notRegularFile,    // a directory, FIFO or device
    fileUnreadable,    // the file cannot be opened or read, or it changed while it was copied
    crossDevice,       // a hard link asked for, the spool on another file system
    spoolFull,         // the quota refuses the entry
    unknownEntry,      // no entry with that id (in a state the operation accepts)
    badOption          // an option out of range
};
RESTCLIENT_EXPORT boost::system::error_category const& queue_category();
RESTCLIENT_EXPORT boost::system::error_code make_error_code(QueueError e);

// How an entry holds its file until it is delivered.
enum class HoldMode {
    copy,     // a copy in the spool: the program may delete or rotate its file at once
    link,     // a hard link in the spool (same file system only): no copy, the same guarantee
    reference // the file where it is; its size, time and MD5 are recorded and a change fails the entry
};

enum class QueueOrder { oldestFirst, newestFirst };

// What happens to `enqueue` when the quota is reached.
enum class WhenFull { refuse, dropOldest };

// `pending` entries wait for their time (`nextAttempt`); `sending` ones are with an uploader or
// being checked against the Storage service; `failed` ones wait for an explicit retry. Delivered,
// expired and dropped entries leave the journal and are only counted.
enum class EntryState { pending, sending, failed };

struct RESTCLIENT_EXPORT UploadQueueOptions {
    boost::filesystem::path spool; // created when missing
    std::string appKey;            // the uploads' application key
    unsigned concurrency = 1;      // uploads at a time, 1..64
    QueueOrder order = QueueOrder::oldestFirst;
    std::chrono::seconds backoffBase{30}; // first pause after a transient failure (then doubled each time)
    std::chrono::seconds backoffCap{3600};
    std::uint64_t rateLimit = 0;    // bytes per second for all transfers together; 0: none
    std::uint64_t quotaBytes = 0;   // bytes held in the spool (copies and links); 0: none
    std::uint64_t quotaEntries = 0; // entries in the journal; 0: none
    WhenFull whenFull = WhenFull::refuse;
    std::chrono::seconds retention{0}; // an undelivered entry older than this expires; 0: never
    bool deleteDelivered = false;      // delete the program's own file once its entry is delivered
    std::string caFile;                // the transfer's CA bundle (FileUploader::SetCACertFile)
    std::chrono::seconds stallTimeout{60};
    std::chrono::milliseconds journalBusyTimeout{5000}; // how long to wait for another process's lock

    // The defaults overlaid with the controller settings' queue_* keys (see README).
    static UploadQueueOptions fromSettings();
};

struct RESTCLIENT_EXPORT QueueEntry {
    std::int64_t id = 0;
    std::string file; // the program's file as it was given
    std::string name;
    std::string type;
    std::map<std::string, std::string> metadata;
    HoldMode hold = HoldMode::copy;
    EntryState state = EntryState::pending;
    std::int64_t size = 0;
    std::string md5;              // hex, taken at enqueue
    std::int64_t enqueued = 0;    // seconds since the epoch
    std::int64_t nextAttempt = 0; // seconds since the epoch
    int attempts = 0;             // uploads started
    bool inDoubt = false;         // may already be stored: checked before it is sent again
    int errorCode = 0;            // the last failure's, as FileUploader reported it
    std::string errorMessage;
};

// How an entry left the queue, for the notification.
enum class EntryOutcome { delivered, failed, expired, dropped };

struct RESTCLIENT_EXPORT QueueCounts {
    std::uint64_t pending = 0, sending = 0, failed = 0;    // in the journal now
    std::uint64_t delivered = 0, expired = 0, dropped = 0; // since the spool was made
    std::uint64_t spoolBytes = 0;
};

// A running transfer's progress.
struct QueueProgress {
    std::int64_t id = 0;
    std::int64_t sent = 0;
    std::int64_t total = 0;
};

class RESTCLIENT_EXPORT UploadQueue {
public:
    // Called for each entry that leaves the queue or fails for good, on the runner's thread (for an
    // entry `enqueue` drops to make room, on its caller's). It must not call `stop` or destroy the
    // queue; exceptions it throws are swallowed.
    using Notify = boost::function<void(QueueEntry const&, EntryOutcome)>;

    // Opens (or makes) the spool and its journal. Null with `ec` set (`detail` says which path
    // and why) when the spool or journal cannot be used; nothing already queued is touched.
    static std::unique_ptr<UploadQueue> open(UploadQueueOptions const& options, boost::system::error_code& ec,
                                             std::string* detail = nullptr);
    ~UploadQueue(); // stops the runner first

    UploadQueue(UploadQueue const&) = delete;
    UploadQueue& operator=(UploadQueue const&) = delete;

    // Holds `file` as `hold` says and records the entry; returns its id once the entry and its
    // file are on disk (fsync'd), 0 with `ec` set otherwise. Any thread, any process.
    std::int64_t enqueue(boost::filesystem::path const& file, std::string const& name, std::string const& type,
                         std::map<std::string, std::string> const& metadata, HoldMode hold,
                         boost::system::error_code& ec, std::string* detail = nullptr);

    // Starts the runner: entries left `sending` by a process that died become in doubt, then due
    // entries are sent. Fails with `runnerActive` while another runner holds the spool.
    boost::system::error_code start(Notify notify = Notify());
    // Cancels running uploads (they go back to pending, in doubt when their transfer had begun)
    // and joins the runner; every entry stays resumable. Safe to call twice.
    void stop();
    // Blocks until no entry is due or sending (entries waiting for a later time do not count),
    // or `timeout` passed; true when idle. Needs a started runner.
    bool waitIdle(std::chrono::milliseconds timeout) const;

    std::vector<QueueEntry> list(std::optional<EntryState> state = std::nullopt) const;
    QueueCounts counts() const;
    std::vector<QueueProgress> progress() const;
    // A failed (or pending) entry becomes due now, its attempts and back-off reset.
    boost::system::error_code retry(std::int64_t id);
    std::uint64_t retryFailed();
    // Removes an entry that is not being sent, with its held file.
    boost::system::error_code drop(std::int64_t id);

private:
    struct State;
    explicit UploadQueue(std::unique_ptr<State> state);
    std::unique_ptr<State> m_state;
};

} // namespace tavix::restclient::storage

namespace boost::system {
template <>
struct is_error_code_enum<tavix::restclient::storage::QueueError> : std::true_type {};
} // namespace boost::system
