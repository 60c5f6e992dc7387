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

/// Errors of the queue's own operations, in queue_category() (the uploads' failures are entries'
/// codes and messages).
enum class QueueError {
    spoolUnusable = 1, ///< the spool directory cannot be created, read or written
    journalUnusable,   ///< the journal cannot be opened: not a database, corrupt, or unreadable
    journalBusy,       ///< another process held the journal longer than the busy time-out
    runnerActive,      ///< another runner (in this or another process) sends from this spool
    fileMissing,       ///< the file to enqueue does not exist
    notRegularFile,    ///< a directory, FIFO or device
    fileUnreadable,    ///< the file cannot be opened or read, or it changed while it was copied
    crossDevice,       ///< a hard link asked for, the spool on another file system
    spoolFull,         ///< the quota refuses the entry
    unknownEntry,      ///< no entry with that id (in a state the operation accepts)
    badOption          ///< an option out of range
};
/// The category of QueueError.
RESTCLIENT_EXPORT boost::system::error_category const& queue_category();
/// Lets a QueueError compare with and convert to an error_code.
RESTCLIENT_EXPORT boost::system::error_code make_error_code(QueueError e);

/// How an entry holds its file until it is delivered.
enum class HoldMode {
    copy,     ///< a copy in the spool: the program may delete or rotate its file at once
    link,     ///< a hard link in the spool (same file system only): no copy, the same guarantee
    reference ///< the file where it is; its size, time and MD5 are recorded and a change fails the entry
};

/// Which due entry the runner takes first.
enum class QueueOrder {
    oldestFirst, ///< by enqueue time, oldest first
    newestFirst  ///< newest first
};

/// What happens to `enqueue` when the quota is reached.
enum class WhenFull {
    refuse,    ///< `enqueue` fails with `spoolFull`
    dropOldest ///< the oldest entries are dropped (logged, notified as `dropped`) to make room
};

/// `pending` entries wait for their time (`nextAttempt`); `sending` ones are with an uploader or
/// being checked against the Storage service; `failed` ones wait for an explicit retry. Delivered,
/// expired and dropped entries leave the journal and are only counted.
enum class EntryState {
    pending, ///< waits for `nextAttempt`
    sending, ///< with an uploader, or being checked against the Storage service
    failed   ///< failed for good; waits for `retry`
};

/// @brief How a queue runs; checked by UploadQueue::open (`badOption`).
struct RESTCLIENT_EXPORT UploadQueueOptions {
    boost::filesystem::path spool;              ///< created when missing
    std::string appKey;                         ///< the uploads' application key
    unsigned concurrency = 1;                   ///< uploads at a time, 1..64
    QueueOrder order = QueueOrder::oldestFirst; ///< which due entry goes first
    std::chrono::seconds backoffBase{30};       ///< first pause after a transient failure (then doubled each time)
    std::chrono::seconds backoffCap{3600};      ///< the longest pause; at least `backoffBase`
    std::uint64_t rateLimit = 0;                ///< bytes per second for all transfers together; 0: none
    std::uint64_t quotaBytes = 0;               ///< bytes held in the spool (copies and links); 0: none
    std::uint64_t quotaEntries = 0;             ///< entries in the journal; 0: none
    WhenFull whenFull = WhenFull::refuse;       ///< what a full quota does to `enqueue`
    std::chrono::seconds retention{0};          ///< an undelivered entry older than this expires; 0: never
    bool deleteDelivered = false;               ///< delete the program's own file once its entry is delivered
    /// The transfer's CA bundle (FileUploader::SetCACertFile). Empty here falls back to the
    /// uploader's fixed path, not to the settings' `ca_file`; `fromSettings` fills it with `ca_file`.
    std::string caFile;
    std::chrono::seconds stallTimeout{60};              ///< FileUploader::SetStallTimeout of every upload
    std::chrono::milliseconds journalBusyTimeout{5000}; ///< how long to wait for another process's lock

    /// The defaults overlaid with the controller settings' queue_* keys (see README) and
    /// `ca_file`; unreadable settings give the defaults. `appKey` stays empty: set it.
    static UploadQueueOptions fromSettings();
};

/// @brief One entry of the queue, as `list` and the notification give it.
struct RESTCLIENT_EXPORT QueueEntry {
    std::int64_t id = 0;                         ///< from 1, unique within the spool
    std::string file;                            ///< the program's file as it was given
    std::string name;                            ///< the stored object's name
    std::string type;                            ///< the stored object's type
    std::map<std::string, std::string> metadata; ///< the caller's entries for the upload
    HoldMode hold = HoldMode::copy;              ///< how the file is held
    EntryState state = EntryState::pending;      ///< where the entry stands
    std::int64_t size = 0;                       ///< bytes, taken at enqueue
    std::string md5;                             ///< hex, taken at enqueue
    std::int64_t enqueued = 0;                   ///< seconds since the epoch
    std::int64_t nextAttempt = 0;                ///< seconds since the epoch
    int attempts = 0;                            ///< uploads started
    bool inDoubt = false;                        ///< may already be stored: checked before it is sent again
    int errorCode = 0;                           ///< the last failure's, as FileUploader reported it
    std::string errorMessage;                    ///< the last failure's text
};

/// How an entry left the queue, for the notification.
enum class EntryOutcome {
    delivered, ///< stored (or found already stored); left the journal
    failed,    ///< failed for good; stays in the journal as `failed`
    expired,   ///< older than `retention`; left the journal
    dropped    ///< dropped to make room (WhenFull::dropOldest); left the journal
};

/// @brief The queue's figures, as `counts` gives them.
struct RESTCLIENT_EXPORT QueueCounts {
    /// @name In the journal now
    /// @{

    /// Entries in that state.
    std::uint64_t pending = 0, sending = 0, failed = 0;
    /// @}
    /// @name Since the spool was made
    /// @{

    /// Entries that left the queue so.
    std::uint64_t delivered = 0, expired = 0, dropped = 0;
    /// @}
    std::uint64_t spoolBytes = 0; ///< bytes the held copies and links take
};

/// @brief A running transfer's progress.
struct QueueProgress {
    std::int64_t id = 0;    ///< the entry
    std::int64_t sent = 0;  ///< bytes sent in the current attempt
    std::int64_t total = 0; ///< the file's size
};

/// @brief A store-and-forward upload queue on a spool directory (see the file description).
///
/// Threads: `enqueue`, `list`, `counts`, `progress`, `retry`, `retryFailed` and `drop` are safe
/// from any thread (and, but for `progress`, from other processes on the same spool); `start`,
/// `stop` and destruction belong to one owning thread. The runner's threads ("UploadQueue_<n>")
/// log, and let no exception out.
///
/// Each upload is a FileUploader: its CA bundle is UploadQueueOptions::caFile (see there), and a
/// failed transfer may leave a bodiless object, which the runner removes before sending again.
class RESTCLIENT_EXPORT UploadQueue {
public:
    /// Called for each entry that leaves the queue or fails for good, on the runner's thread (for an
    /// entry `enqueue` drops to make room, on its caller's; for an expired one, on a runner thread).
    /// It must not call `stop` or destroy the queue; exceptions it throws are swallowed.
    using Notify = boost::function<void(QueueEntry const&, EntryOutcome)>;

    /// Opens (or makes) the spool and its journal. Null with `ec` set (`detail` says which path
    /// and why) when the spool or journal cannot be used; nothing already queued is touched.
    /// Errors: `badOption`, `spoolUnusable`, `journalUnusable`, `journalBusy`.
    static std::unique_ptr<UploadQueue> open(UploadQueueOptions const& options, boost::system::error_code& ec,
                                             std::string* detail = nullptr);
    ~UploadQueue(); ///< stops the runner first (see `stop`)

    UploadQueue(UploadQueue const&) = delete;
    UploadQueue& operator=(UploadQueue const&) = delete;

    /// Holds `file` as `hold` says and records the entry; returns its id once the entry and its
    /// file are on disk (fsync'd), 0 with `ec` set otherwise. Any thread, any process.
    /// Errors: `fileMissing`, `notRegularFile`, `fileUnreadable`, `crossDevice`, `spoolFull`,
    /// `spoolUnusable`, `journalBusy`, `journalUnusable`; `detail` names the path and reason.
    /// Blocks for the copy (HoldMode::copy) and MD5 pass of the whole file.
    std::int64_t enqueue(boost::filesystem::path const& file, std::string const& name, std::string const& type,
                         std::map<std::string, std::string> const& metadata, HoldMode hold,
                         boost::system::error_code& ec, std::string* detail = nullptr);

    /// Starts the runner: entries left `sending` by a process that died become in doubt, then due
    /// entries are sent. Fails with `runnerActive` while another runner holds the spool (or this
    /// object's runner runs), `spoolUnusable` when its lock file cannot be made.
    boost::system::error_code start(Notify notify = Notify());
    /// Cancels running uploads (they go back to pending, in doubt when their transfer had begun)
    /// and joins the runner; every entry stays resumable. Safe to call twice; `start` may follow.
    /// Returns within about a second of the uploads' cancel, but an in-doubt check under way
    /// ends only at its own request's time-out.
    void stop();
    /// Blocks until no entry is due or sending (entries waiting for a later time do not count),
    /// or `timeout` passed; true when idle. Needs a started runner.
    bool waitIdle(std::chrono::milliseconds timeout) const;

    /// The entries in the journal (of `state` only, when given). A journal that cannot be read
    /// gives an empty list: no error is reported.
    std::vector<QueueEntry> list(std::optional<EntryState> state = std::nullopt) const;
    /// The figures; zeros when the journal cannot be read.
    QueueCounts counts() const;
    /// The transfers this object's runner has under way.
    std::vector<QueueProgress> progress() const;
    /// A failed (or pending) entry becomes due now, its attempts and back-off reset.
    /// `unknownEntry` when there is none such; a journal error as it came.
    boost::system::error_code retry(std::int64_t id);
    /// `retry` for every failed entry; how many. Journal errors count as none.
    std::uint64_t retryFailed();
    /// Removes an entry that is not being sent, with its held file. `unknownEntry` when there is
    /// none such; a journal error as it came.
    boost::system::error_code drop(std::int64_t id);

private:
    struct State;
    explicit UploadQueue(std::unique_ptr<State> state);
    std::unique_ptr<State> m_state;
};

} // namespace tavix::restclient::storage

namespace boost::system {
/// Makes QueueError an error code enum: it converts to boost::system::error_code.
template <>
struct is_error_code_enum<tavix::restclient::storage::QueueError> : std::true_type {};
} // namespace boost::system
