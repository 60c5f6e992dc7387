#include <restclient/storage/UploadQueue.h>

#include <restclient/detail/WorkerLog.h>
#include <restclient/detail/WorkerThread.h>
#include <restclient/storage/FileUploader.h>
#include <restclient/storage/detail/FailureSort.h>
#include <restclient/storage/detail/QueueJournal.h>
#include <restclient/storage/detail/SpoolFiles.h>
#include <restclient/storage/detail/StoredCheck.h>

#include <tavix/controller/Settings.h>

#include <boost/filesystem/operations.hpp>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <mutex>
#include <random>

namespace tavix::restclient::storage {

namespace fs = boost::filesystem;
using detail::JournalEntry;

namespace {

class QueueCategory : public boost::system::error_category {
public:
    char const* name() const noexcept override { return "restclient.queue"; }
    std::string message(int value) const override
    {
        switch (static_cast<QueueError>(value)) {
        case QueueError::spoolUnusable: return "the spool directory cannot be used";
        case QueueError::journalUnusable: return "the queue's journal cannot be used";
        case QueueError::journalBusy: return "the queue's journal is locked by another process";
        case QueueError::runnerActive: return "another runner is sending from this spool";
        case QueueError::fileMissing: return "the file does not exist";
        case QueueError::notRegularFile: return "not a regular file";
        case QueueError::fileUnreadable: return "the file cannot be read";
        case QueueError::crossDevice: return "a hard link needs the spool on the file's file system";
        case QueueError::spoolFull: return "the spool is full";
        case QueueError::unknownEntry: return "no such entry";
        case QueueError::badOption: return "bad queue option";
        }
        return "upload queue error";
    }
};

std::int64_t now() { return static_cast<std::int64_t>(std::time(nullptr)); }

// How often a runner looks for entries another process enqueued, and for expired ones.
constexpr auto kPoll = std::chrono::seconds(1);
constexpr std::int64_t kExpirySweepSeconds = 60;

} // namespace

boost::system::error_category const& queue_category()
{
    static QueueCategory const category;
    return category;
}

boost::system::error_code make_error_code(QueueError e) { return {static_cast<int>(e), queue_category()}; }

UploadQueueOptions UploadQueueOptions::fromSettings()
{
    UploadQueueOptions options;
    controller::Settings const s = controller::Settings::current();
    options.spool = s.queueSpool;
    options.caFile = s.caFile;
    if (s.queueConcurrency) options.concurrency = static_cast<unsigned>(*s.queueConcurrency);
    if (s.queueRate) options.rateLimit = *s.queueRate;
    if (s.queueQuotaBytes) options.quotaBytes = *s.queueQuotaBytes;
    if (s.queueQuotaEntries) options.quotaEntries = *s.queueQuotaEntries;
    if (s.queueBackoffBase) options.backoffBase = std::chrono::seconds(*s.queueBackoffBase);
    if (s.queueBackoffCap) options.backoffCap = std::chrono::seconds(*s.queueBackoffCap);
    if (s.queueRetention) options.retention = std::chrono::seconds(*s.queueRetention);
    if (s.queueDropOldest) options.whenFull = *s.queueDropOldest ? WhenFull::dropOldest : WhenFull::refuse;
    return options;
}

struct UploadQueue::State {
    UploadQueueOptions options;
    fs::path filesDir;
    std::unique_ptr<detail::QueueJournal> journal;

    int runnerLock = -1;
    std::vector<boost::shared_ptr<boost::thread>> slots;

    mutable std::mutex mutex; // guards what follows
    Notify notify;
    std::condition_variable wake;
    mutable std::condition_variable changed;
    bool stopping = false;
    int busy = 0;
    std::map<std::int64_t, FileUploader*> uploading;
    std::vector<JournalEntry> toRelease; // delivered, their held files not yet removed
    std::int64_t lastExpirySweep = 0;
    std::mt19937_64 random{std::random_device()()};

    bool isStopping() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return stopping;
    }

    void tell(JournalEntry const& e, EntryOutcome outcome) const
    {
        Notify told;
        {
            std::lock_guard<std::mutex> lock(mutex);
            told = notify;
        }
        if (!told) return;
        try {
            told(e.entry, outcome);
        } catch (...) {}
    }

    void slot();
    void expireOld();
    void releaseDelivered();
    void process(JournalEntry e);
    void upload(JournalEntry& e);
    void settle(JournalEntry& e, FileUploader const& uploader);
    void delivered(JournalEntry const& e);
    void failForGood(JournalEntry& e, int code, std::string const& message);
    void tryLater(JournalEntry& e, int code, std::string const& message);
};

std::unique_ptr<UploadQueue> UploadQueue::open(UploadQueueOptions const& options, boost::system::error_code& ec,
                                               std::string* detail)
{
    std::string why;
    auto const fail = [&](QueueError error, std::string text) -> std::unique_ptr<UploadQueue> {
        ec = error;
        if (detail) *detail = std::move(text);
        return nullptr;
    };
    if (options.spool.empty()) return fail(QueueError::badOption, "no spool directory (queue_spool)");
    if (options.concurrency < 1 || options.concurrency > 64) {
        return fail(QueueError::badOption, "concurrency must be from 1 to 64");
    }
    if (options.backoffBase.count() < 0 || options.backoffCap < options.backoffBase) {
        return fail(QueueError::badOption, "the back-off base must be from 0 to the cap");
    }
    auto state = std::make_unique<State>();
    state->options = options;
    state->filesDir = options.spool / "files";
    boost::system::error_code made;
    fs::create_directories(state->filesDir, made);
    if (made || !fs::is_directory(state->filesDir, made)) {
        return fail(QueueError::spoolUnusable, state->filesDir.string() + ": " + made.message());
    }
    std::string const journalFile = (options.spool / "queue.db").string();
    state->journal = detail::QueueJournal::open(journalFile, options.journalBusyTimeout, ec, why);
    if (!state->journal) {
        if (detail) *detail = why;
        return nullptr;
    }
    ec.clear();
    return std::unique_ptr<UploadQueue>(new UploadQueue(std::move(state)));
}

UploadQueue::UploadQueue(std::unique_ptr<State> state) : m_state(std::move(state)) {}

UploadQueue::~UploadQueue() { stop(); }

std::int64_t UploadQueue::enqueue(fs::path const& file, std::string const& name, std::string const& type,
                                  std::map<std::string, std::string> const& metadata, HoldMode hold,
                                  boost::system::error_code& ec, std::string* detail)
{
    State& s = *m_state;
    std::string why;
    auto const fail = [&](boost::system::error_code const& error) {
        ec = error;
        if (detail) *detail = why;
        return std::int64_t(0);
    };
    boost::system::error_code statError;
    auto const size = fs::file_size(file, statError);
    // A file the quota refuses anyway is not copied first.
    detail::QuotaLimits const quota{s.options.quotaBytes, s.options.quotaEntries,
                                    s.options.whenFull == WhenFull::dropOldest};
    if (!statError && !quota.dropOldest) {
        boost::system::error_code quotaError;
        if (!s.journal->fits(hold == HoldMode::reference ? 0 : size, quota, quotaError)) {
            why = "the quota (" + std::to_string(quota.entries) + " entries, " + std::to_string(quota.bytes)
                + " bytes) is reached";
            return fail(quotaError ? quotaError : make_error_code(QueueError::spoolFull));
        }
    }
    // Shared with other enqueues, exclusive for the sweep of orphans: a file being taken in is
    // never swept before its entry is recorded.
    detail::SpoolLock const taking(s.options.spool, detail::SpoolLock::shared);
    JournalEntry e;
    if (!detail::holdFile(file, hold, s.filesDir, e, ec, why)) return fail(ec);
    e.entry.name = name;
    e.entry.type = type;
    e.entry.metadata = metadata;
    e.entry.hold = hold;
    e.entry.enqueued = now();
    std::vector<JournalEntry> dropped;
    if (!s.journal->insert(e, quota, dropped, ec, why)) {
        detail::releaseHeld(e, s.filesDir);
        return fail(ec);
    }
    for (auto const& old : dropped) {
        WORKER_LOG_WARN("[UploadQueue] Spool full: dropped entry " << old.entry.id << " (" << old.entry.file
                                                                   << ") to make room for " << e.entry.file);
        detail::releaseHeld(old, s.filesDir);
        s.tell(old, EntryOutcome::dropped);
    }
    WORKER_LOG_DEBUG("[UploadQueue] Entry " << e.entry.id << " enqueued: " << e.entry.file << " (" << e.entry.size
                                            << " bytes)");
    s.wake.notify_all();
    ec.clear();
    return e.entry.id;
}

boost::system::error_code UploadQueue::start(Notify notify)
{
    State& s = *m_state;
    if (!s.slots.empty()) return QueueError::runnerActive;
    // One runner per spool, in or across processes; the kernel lets go of the lock when the
    // process dies, so a killed runner never blocks the next.
    std::string const lockFile = (s.options.spool / "runner.lock").string();
    int const fd = ::open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return QueueError::spoolUnusable;
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        ::close(fd);
        return QueueError::runnerActive;
    }
    s.runnerLock = fd;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.notify = std::move(notify);
    }
    boost::system::error_code ec;
    if (int const recovered = s.journal->recoverSending(ec); recovered > 0) {
        WORKER_LOG_WARN("[UploadQueue] " << recovered << " entries were being sent when their runner stopped: "
                                         << "each is checked against the Storage service before it is sent again.");
    }
    if (detail::SpoolLock const sweeping(s.options.spool, detail::SpoolLock::exclusive); sweeping) {
        detail::sweepOrphans(s.filesDir, s.journal->heldFiles(ec));
    }
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.stopping = false;
    }
    for (unsigned i = 0; i < s.options.concurrency; ++i)
        s.slots.push_back(restclient::detail::startWorker([&s] { s.slot(); }, "UploadQueue_" + std::to_string(i)));
    WORKER_LOG_INFO("[UploadQueue] Runner started on " << s.options.spool.string() << " with " << s.options.concurrency
                                                       << " at a time.");
    return {};
}

void UploadQueue::stop()
{
    State& s = *m_state;
    if (s.slots.empty()) return;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.stopping = true;
        for (auto& [id, uploader] : s.uploading) uploader->Cancel();
    }
    s.wake.notify_all();
    for (auto& slot : s.slots) slot->join();
    s.slots.clear();
    s.releaseDelivered();
    ::close(s.runnerLock);
    s.runnerLock = -1;
    WORKER_LOG_INFO("[UploadQueue] Runner stopped.");
}

bool UploadQueue::waitIdle(std::chrono::milliseconds timeout) const
{
    State const& s = *m_state;
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        boost::system::error_code ec;
        auto const due = s.journal->nextDue(ec);
        {
            std::unique_lock<std::mutex> lock(s.mutex);
            // Idle also means the delivered entries' held files are gone.
            if (s.busy == 0 && s.toRelease.empty() && !ec && (!due || *due > now())) return true;
            if (std::chrono::steady_clock::now() >= deadline) return false;
            s.changed.wait_for(lock, std::chrono::milliseconds(100));
        }
    }
}

std::vector<QueueEntry> UploadQueue::list(std::optional<EntryState> state) const
{
    boost::system::error_code ec;
    std::vector<QueueEntry> entries;
    for (auto& e : m_state->journal->list(state, ec)) entries.push_back(std::move(e.entry));
    return entries;
}

QueueCounts UploadQueue::counts() const
{
    boost::system::error_code ec;
    return m_state->journal->counts(ec);
}

std::vector<QueueProgress> UploadQueue::progress() const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    std::vector<QueueProgress> running;
    for (auto const& [id, uploader] : m_state->uploading)
        running.push_back({id, uploader->bytesSent.load(), uploader->bytesTotal.load()});
    return running;
}

boost::system::error_code UploadQueue::retry(std::int64_t id)
{
    boost::system::error_code ec;
    if (m_state->journal->retry(id, now(), ec) == 0 && !ec) ec = QueueError::unknownEntry;
    m_state->wake.notify_all();
    return ec;
}

std::uint64_t UploadQueue::retryFailed()
{
    boost::system::error_code ec;
    auto const n = m_state->journal->retry(0, now(), ec);
    m_state->wake.notify_all();
    return n;
}

boost::system::error_code UploadQueue::drop(std::int64_t id)
{
    boost::system::error_code ec;
    auto const dropped = m_state->journal->drop(id, ec);
    if (ec) return ec;
    if (!dropped) return QueueError::unknownEntry;
    detail::releaseHeld(*dropped, m_state->filesDir);
    WORKER_LOG_INFO("[UploadQueue] Entry " << id << " (" << dropped->entry.file << ") dropped.");
    return {};
}

void UploadQueue::State::slot()
{
    // Nothing may leave a worker thread.
    try {
        while (!isStopping()) {
            expireOld();
            // Nothing goes while the uploader's Locator back-off runs: every upload would fail
            // on the stale Account URL. Kept in this process, as the uploader keeps it.
            if (auto const backoff = FileUploader::LocatorBackoffEnd(); backoff > now()) {
                std::unique_lock<std::mutex> lock(mutex);
                wake.wait_for(lock, kPoll, [this] { return stopping; });
                continue;
            }
            // Busy from before the claim: an entry the journal already says is sending would
            // otherwise be counted nowhere, and waitIdle could report idle in between.
            {
                std::lock_guard<std::mutex> lock(mutex);
                ++busy;
            }
            boost::system::error_code ec;
            auto claimed = journal->claimDue(now(), options.order, ec);
            if (!claimed) {
                if (ec) WORKER_LOG_WARN("[UploadQueue] The journal cannot be read now: " << ec.message());
                releaseDelivered();
                std::unique_lock<std::mutex> lock(mutex);
                --busy;
                changed.notify_all();
                wake.wait_for(lock, kPoll, [this] { return stopping; });
                continue;
            }
            process(std::move(*claimed));
            {
                std::lock_guard<std::mutex> lock(mutex);
                --busy;
            }
            changed.notify_all();
        }
    } catch (std::exception const& e) {
        WORKER_LOG_ERROR("[UploadQueue] Runner slot stopped by an unexpected error: " << e.what());
    } catch (...) {
        WORKER_LOG_ERROR("[UploadQueue] Runner slot stopped by an unexpected error.");
    }
}

void UploadQueue::State::releaseDelivered()
{
    std::vector<JournalEntry> done;
    {
        std::lock_guard<std::mutex> lock(mutex);
        done.swap(toRelease);
    }
    for (auto const& e : done) releaseHeld(e, filesDir);
}

void UploadQueue::State::expireOld()
{
    if (options.retention.count() <= 0) return;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (now() - lastExpirySweep < kExpirySweepSeconds) return;
        lastExpirySweep = now();
    }
    boost::system::error_code ec;
    for (auto const& e : journal->expire(now() - options.retention.count(), ec)) {
        WORKER_LOG_WARN("[UploadQueue] Entry " << e.entry.id << " (" << e.entry.file << ") expired undelivered after "
                                               << options.retention.count() << " seconds.");
        releaseHeld(e, filesDir);
        tell(e, EntryOutcome::expired);
    }
}

void UploadQueue::State::process(JournalEntry e)
{
    // Asked first: a delivery whose record a power cut lost has its held copy already gone.
    if (e.entry.inDoubt) {
        std::string why;
        detail::StoredQuery const query{options.appKey, e.entry.name, e.entry.type, e.entry.md5, e.entry.size};
        switch (detail::findStored(
            query, [this] { return isStopping(); }, why)) {
        case detail::Stored::yes:
            WORKER_LOG_INFO("[UploadQueue] Entry " << e.entry.id << " is already stored: not sent again.");
            return delivered(e);
        case detail::Stored::unknown:
            // Never sent blind: it waits until the service can say.
            return tryLater(e, 0, "Not sent again until the Storage service can say whether it holds it (" + why + ")");
        case detail::Stored::no: ++e.entry.attempts; break;
        }
    }
    if (auto const problem = detail::heldFileProblem(e); problem.code != 0) {
        return failForGood(e, problem.code, problem.message);
    }
    upload(e);
}

void UploadQueue::State::upload(JournalEntry& e)
{
    e.entry.inDoubt = false;
    FileUploader uploader(e.held, e.entry.name, e.entry.type, e.entry.metadata, options.appKey);
    uploader.SetCACertFile(options.caFile);
    uploader.SetStallTimeout(options.stallTimeout);
    // The cap is shared evenly by the slots, so that together they never pass it.
    uploader.SetMaxSendSpeed(options.rateLimit / options.concurrency);
    {
        std::lock_guard<std::mutex> lock(mutex);
        uploading[e.entry.id] = &uploader;
        if (stopping) uploader.Cancel();
    }
    uploader.WaitFinished(std::chrono::hours(24 * 365));
    {
        std::lock_guard<std::mutex> lock(mutex);
        uploading.erase(e.entry.id);
    }
    settle(e, uploader);
}

void UploadQueue::State::settle(JournalEntry& e, FileUploader const& uploader)
{
    int const code = uploader.errorCode;
    if (code == 0) return delivered(e);
    // Complete once the step is 6, which WaitFinished saw.
    std::string const message = uploader.errorMessage;
    if (auto const problem = detail::heldFileProblem(e); problem.code != 0) {
        return failForGood(e, problem.code, problem.message);
    }
    // A transfer that began may have left the body stored, whatever its end looked like.
    e.entry.inDoubt = uploader.failedStep == 5;
    if (detail::sortFailure(code, uploader.failedStep, uploader.httpStatus) == detail::FailureKind::permanent) {
        return failForGood(e, code, message);
    }
    tryLater(e, code, message);
}

void UploadQueue::State::delivered(JournalEntry const& e)
{
    boost::system::error_code ec;
    if (!journal->remove(e.entry.id, "delivered", true, ec)) {
        // Left sending: the next runner finds it stored and counts it then.
        WORKER_LOG_ERROR("[UploadQueue] Entry " << e.entry.id
                                                << " delivered, but the journal cannot record it: " << ec.message());
        return;
    }
    {
        // Removed when the slot has nothing due: not on the next entry's way.
        std::lock_guard<std::mutex> lock(mutex);
        toRelease.push_back(e);
    }
    if (options.deleteDelivered) detail::deleteSource(e);
    WORKER_LOG_INFO("[UploadQueue] Entry " << e.entry.id << " (" << e.entry.file << ") delivered.");
    tell(e, EntryOutcome::delivered);
}

void UploadQueue::State::failForGood(JournalEntry& e, int code, std::string const& message)
{
    e.entry.errorCode = code;
    e.entry.errorMessage = message;
    e.entry.state = EntryState::failed;
    boost::system::error_code ec;
    journal->markFailed(e, ec);
    WORKER_LOG_ERROR("[UploadQueue] Entry " << e.entry.id << " (" << e.entry.file << ") failed for good: " << code
                                            << " " << message);
    tell(e, EntryOutcome::failed);
}

void UploadQueue::State::tryLater(JournalEntry& e, int code, std::string const& message)
{
    e.entry.errorCode = code;
    e.entry.errorMessage = message;
    std::int64_t next = now();
    // Stopped on purpose: neither a failure nor a reason to wait.
    if (!(isStopping() && (code == 49 || code == 0))) {
        ++e.failures;
        std::chrono::seconds pause;
        {
            std::lock_guard<std::mutex> lock(mutex);
            pause = detail::backoffDelay(e.failures, options.backoffBase, options.backoffCap, random);
        }
        next += pause.count();
        WORKER_LOG_WARN("[UploadQueue] Entry " << e.entry.id << " (" << e.entry.file << ") will be tried again in "
                                               << (next - now()) << " seconds: " << code << " " << message);
    }
    e.entry.state = EntryState::pending;
    e.entry.nextAttempt = next;
    boost::system::error_code ec;
    journal->reschedule(e, next, ec);
}

} // namespace tavix::restclient::storage
