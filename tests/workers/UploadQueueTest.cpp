// The upload queue against the emulator: delivery in each hold mode, durability across a process
// that exits without stopping, the duplicate check of entries that may already be stored, the
// sorting of failures, quotas, expiry, and bad input that must lose nothing already queued.
#include <restclient/storage/UploadQueue.h>
#include <restclient/storage/detail/FailureSort.h>
#include <tests/workers/UploaderFixture.h>

#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <set>

namespace tavix::test {
namespace {

using namespace restclient::storage;
using namespace std::chrono_literals;

class UploadQueueTest : public UploaderTest {
protected:
    UploadQueueOptions options() const
    {
        UploadQueueOptions o;
        o.spool = dir / "spool";
        o.appKey = kAppKey;
        o.backoffBase = 1s;
        o.backoffCap = 2s;
        return o;
    }

    std::unique_ptr<UploadQueue> open(UploadQueueOptions const& o)
    {
        boost::system::error_code ec;
        std::string detail;
        auto queue = UploadQueue::open(o, ec, &detail);
        EXPECT_TRUE(queue) << ec.message() << ": " << detail;
        return queue;
    }

    std::int64_t enqueue(UploadQueue& queue, fs::path const& file, HoldMode hold = HoldMode::copy)
    {
        boost::system::error_code ec;
        std::string detail;
        auto const id = queue.enqueue(file, "proj/" + file.filename().string(), "log", {{"k", "v"}}, hold, ec, &detail);
        EXPECT_FALSE(ec) << ec.message() << ": " << detail;
        return id;
    }

    // Notifications, as the runner's threads give them.
    void start(UploadQueue& queue)
    {
        ASSERT_FALSE(queue.start([this](QueueEntry const& e, EntryOutcome outcome) {
            std::lock_guard<std::mutex> lock(mutex);
            outcomes.emplace_back(e.id, outcome);
        }));
    }

    std::size_t storedNamed(std::string const& name) const
    {
        std::size_t count = 0;
        for (auto const& object : cloud.objects()) count += object.name == name && object.uploaded;
        return count;
    }

    std::size_t heldEntries() const
    {
        return static_cast<std::size_t>(
            std::distance(fs::directory_iterator(dir / "spool" / "files"), fs::directory_iterator()));
    }

    std::mutex mutex;
    std::vector<std::pair<std::int64_t, EntryOutcome>> outcomes;
};

TEST_F(UploadQueueTest, DeliversInEveryHoldModeAndLeavesTheSpoolEmpty)
{
    auto queue = open(options());
    std::set<std::int64_t> ids;
    ids.insert(enqueue(*queue, makeFile("copied.txt", "copied bytes"), HoldMode::copy));
    ids.insert(enqueue(*queue, makeFile("linked.txt", "linked bytes"), HoldMode::link));
    ids.insert(enqueue(*queue, makeFile("referenced.txt", "referenced bytes"), HoldMode::reference));
    EXPECT_EQ(heldEntries(), 2u); // the reference is not in the spool
    // The program may remove its copied file at once.
    fs::remove(dir / "copied.txt");

    start(*queue);
    ASSERT_TRUE(queue->waitIdle(kBound));
    auto const counts = queue->counts();
    EXPECT_EQ(counts.delivered, 3u);
    EXPECT_EQ(counts.pending + counts.sending + counts.failed, 0u);
    EXPECT_EQ(counts.spoolBytes, 0u);
    EXPECT_EQ(heldEntries(), 0u);
    for (char const* name : {"proj/copied.txt", "proj/linked.txt", "proj/referenced.txt"})
        EXPECT_EQ(storedNamed(name), 1u) << name;
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(outcomes.size(), 3u);
    for (auto const& [id, outcome] : outcomes) {
        EXPECT_EQ(outcome, EntryOutcome::delivered);
        EXPECT_EQ(ids.count(id), 1u);
    }
}

TEST_F(UploadQueueTest, AnEntrySurvivesAProcessThatExitsWithoutStopping)
{
    fs::path const file = makeFile("durable.txt", "kept through an exit");
    pid_t const child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        boost::system::error_code ec;
        auto queue = UploadQueue::open(options(), ec);
        auto const id = queue ? queue->enqueue(file, "proj/durable.txt", "log", {}, HoldMode::copy, ec) : 0;
        _exit(id > 0 ? 0 : 1); // no destructor, no stop
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    fs::remove(file);

    auto queue = open(options());
    auto const entries = queue->list();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].name, "proj/durable.txt");
    start(*queue);
    ASSERT_TRUE(queue->waitIdle(kBound));
    EXPECT_EQ(storedNamed("proj/durable.txt"), 1u);
}

// An entry left "sending" by a runner that died after the service stored the body.
void markSending(fs::path const& journal, std::int64_t id)
{
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(journal.c_str(), &db), SQLITE_OK);
    std::string const sql = "UPDATE entries SET state = 1 WHERE id = " + std::to_string(id);
    EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(db);
}

TEST_F(UploadQueueTest, AnEntryInDoubtIsCheckedAndNotSentTwice)
{
    fs::path const file = makeFile("doubt.txt", "stored before the crash");
    auto queue = open(options());
    auto const id = enqueue(*queue, file);
    // What the dead runner managed: the whole upload, but not the journal's record of it.
    FileUploader earlier(file, "proj/doubt.txt", "log", {}, kAppKey);
    ASSERT_TRUE(earlier.WaitFinished(kBound));
    ASSERT_EQ(earlier.errorCode, 0) << earlier.errorMessage;
    markSending(dir / "spool" / "queue.db", id);
    std::size_t const puts = requestsTo("/blobs/");

    start(*queue);
    ASSERT_TRUE(queue->waitIdle(kBound));
    EXPECT_EQ(queue->counts().delivered, 1u);
    EXPECT_EQ(storedNamed("proj/doubt.txt"), 1u);
    EXPECT_EQ(requestsTo("/blobs/"), puts) << "sent again";
}

TEST_F(UploadQueueTest, AnEntryInDoubtWaitsWhileTheServiceCannotBeAsked)
{
    auto queue = open(options());
    auto const id = enqueue(*queue, makeFile("wait.txt", "not sent blind"));
    markSending(dir / "spool" / "queue.db", id);
    writeSettings("http://127.0.0.1:1/locator/rest"); // nothing listens there

    start(*queue);
    ASSERT_TRUE(queue->waitIdle(kBound));
    queue->stop();
    auto const entries = queue->list();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].state, EntryState::pending);
    EXPECT_TRUE(entries[0].inDoubt);
    EXPECT_EQ(entries[0].attempts, 0);
    EXPECT_NE(entries[0].errorMessage.find("Storage service can say"), std::string::npos) << entries[0].errorMessage;
    EXPECT_EQ(requestsTo("/blobs/"), 0u);

    // Once it can be asked, the entry goes.
    writeSettings(cloud.locatorUrl());
    start(*queue);
    ASSERT_TRUE(queue->waitIdle(kBound));
    ASSERT_EQ(queue->retry(id), boost::system::error_code());
    ASSERT_TRUE(queue->waitIdle(kBound));
    EXPECT_EQ(storedNamed("proj/wait.txt"), 1u);
}

TEST_F(UploadQueueTest, SortsFailuresIntoFailedAndTriedAgain)
{
    auto queue = open(options());
    // The store request refused as malformed: permanent.
    cloud.scriptReply({400, errorDocument(400), "application/json", "/files"});
    auto const bad = enqueue(*queue, makeFile("bad.txt", "refused"));
    start(*queue);
    ASSERT_TRUE(queue->waitIdle(kBound));
    auto failed = queue->list(EntryState::failed);
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].id, bad);
    EXPECT_EQ(failed[0].errorCode, 32);

    // A 503 to the store request: back later, then delivered without help.
    cloud.scriptReply({503, errorDocument(503), "application/json", "/files"});
    auto const busy = enqueue(*queue, makeFile("busy.txt", "tried again"));
    auto const deadline = std::chrono::steady_clock::now() + kBound;
    while (storedNamed("proj/busy.txt") == 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(50ms);
    EXPECT_EQ(storedNamed("proj/busy.txt"), 1u);
    EXPECT_EQ(queue->counts().delivered, 1u);
    EXPECT_EQ(queue->retry(busy), make_error_code(QueueError::unknownEntry));

    // The failed one goes on an explicit retry.
    EXPECT_EQ(queue->retryFailed(), 1u);
    ASSERT_TRUE(queue->waitIdle(kBound));
    EXPECT_EQ(storedNamed("proj/bad.txt"), 1u);
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(outcomes.front(), std::make_pair(bad, EntryOutcome::failed));
}

TEST_F(UploadQueueTest, AReferencedFileChangedBeforeItIsSentFails)
{
    auto queue = open(options());
    fs::path const file = makeFile("log.txt", "first");
    enqueue(*queue, file, HoldMode::reference);
    std::this_thread::sleep_for(10ms);
    std::ofstream(file.string(), std::ios::app) << " and more";
    start(*queue);
    ASSERT_TRUE(queue->waitIdle(kBound));
    auto const failed = queue->list(EntryState::failed);
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].errorCode, 46);
    EXPECT_NE(failed[0].errorMessage.find("changed since it was enqueued"), std::string::npos);
    EXPECT_EQ(requestsTo("/files"), 0u);
}

TEST_F(UploadQueueTest, QuotaRefusesOrDropsTheOldest)
{
    auto o = options();
    o.quotaEntries = 2;
    auto queue = open(o);
    auto const first = enqueue(*queue, makeFile("1.txt", "one"));
    enqueue(*queue, makeFile("2.txt", "two"));
    boost::system::error_code ec;
    EXPECT_EQ(queue->enqueue(makeFile("3.txt", "three"), "p/3", "log", {}, HoldMode::copy, ec), 0);
    EXPECT_EQ(ec, make_error_code(QueueError::spoolFull));
    EXPECT_EQ(heldEntries(), 2u);

    queue.reset();
    o.whenFull = WhenFull::dropOldest;
    o.quotaEntries = 0;
    o.quotaBytes = 7; // room for "two" and "four"
    queue = open(o);
    enqueue(*queue, makeFile("4.txt", "four"));
    auto const entries = queue->list();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_NE(entries[0].id, first);
    EXPECT_EQ(queue->counts().dropped, 1u);
    EXPECT_EQ(queue->counts().spoolBytes, 7u);
    EXPECT_EQ(heldEntries(), 2u);
}

TEST_F(UploadQueueTest, ExpiresOldEntriesAndDeletesDeliveredSources)
{
    auto o = options();
    auto queue = open(o);
    enqueue(*queue, makeFile("old.txt", "too old"));
    std::this_thread::sleep_for(3100ms);
    o.deleteDelivered = true;
    queue = open(o);
    fs::path const source = makeFile("mine.txt", "delete me after");
    fs::path const rotated = makeFile("rotated.txt", "keep me");
    enqueue(*queue, source);
    enqueue(*queue, rotated);
    fs::rename(rotated, dir / "rotated.1");
    makeFile("rotated.txt", "a new file under the old name");
    queue.reset();

    o.retention = 2s;
    queue = open(o);
    start(*queue);
    ASSERT_TRUE(queue->waitIdle(kBound));
    auto const counts = queue->counts();
    EXPECT_EQ(counts.expired, 1u);
    EXPECT_EQ(counts.delivered, 2u);
    EXPECT_EQ(storedNamed("proj/old.txt"), 0u);
    EXPECT_FALSE(fs::exists(source));
    EXPECT_TRUE(fs::exists(dir / "rotated.txt"));
    EXPECT_TRUE(fs::exists(dir / "rotated.1"));
}

TEST_F(UploadQueueTest, BadInputGetsAClearErrorAndLosesNothing)
{
    auto o = options();
    o.journalBusyTimeout = 200ms;
    auto queue = open(o);
    enqueue(*queue, makeFile("kept.txt", "already queued"));

    boost::system::error_code ec;
    std::string detail;
    EXPECT_EQ(queue->enqueue(dir / "missing", "p/m", "log", {}, HoldMode::copy, ec, &detail), 0);
    EXPECT_EQ(ec, make_error_code(QueueError::fileMissing));
    EXPECT_NE(detail.find("missing"), std::string::npos);
    EXPECT_EQ(queue->enqueue(dir, "p/d", "log", {}, HoldMode::copy, ec), 0);
    EXPECT_EQ(ec, make_error_code(QueueError::notRegularFile));

    // Another process holds the journal.
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open((dir / "spool" / "queue.db").c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
    EXPECT_EQ(queue->enqueue(makeFile("late.txt", "x"), "p/l", "log", {}, HoldMode::copy, ec), 0);
    EXPECT_EQ(ec, make_error_code(QueueError::journalBusy));
    sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close(other);
    EXPECT_EQ(queue->list().size(), 1u);
    EXPECT_EQ(heldEntries(), 1u) << "the refused file's copy is left behind";

    // A second runner on the same spool.
    start(*queue);
    auto second = open(o);
    EXPECT_EQ(second->start(), make_error_code(QueueError::runnerActive));
    queue->stop();

    // A spool that cannot be made, a journal that is not a database.
    o.spool = dir / "kept.txt" / "spool";
    EXPECT_FALSE(UploadQueue::open(o, ec, &detail));
    EXPECT_EQ(ec, make_error_code(QueueError::spoolUnusable));
    fs::create_directories(dir / "corrupt");
    std::ofstream((dir / "corrupt" / "queue.db").string()) << std::string(8192, 'x');
    o.spool = dir / "corrupt";
    EXPECT_FALSE(UploadQueue::open(o, ec, &detail));
    EXPECT_EQ(ec, make_error_code(QueueError::journalUnusable));
    EXPECT_NE(detail.find("queue.db"), std::string::npos);
    EXPECT_EQ(fs::file_size(dir / "corrupt" / "queue.db"), 8192u) << "left as it was";
}

TEST(QueueFailureSort, TellsTransientFromPermanent)
{
    using detail::FailureKind;
    using detail::sortFailure;
    EXPECT_EQ(sortFailure(7, 5, 0), FailureKind::transient);     // no connection
    EXPECT_EQ(sortFailure(28, 5, 0), FailureKind::transient);    // time-out or stall
    EXPECT_EQ(sortFailure(503, 5, 503), FailureKind::transient); // 5xx
    EXPECT_EQ(sortFailure(32, 4, 401), FailureKind::transient);  // token refused twice
    EXPECT_EQ(sortFailure(403, 5, 403), FailureKind::transient); // expired upload URL
    EXPECT_EQ(sortFailure(49, 5, 0), FailureKind::transient);    // cancelled
    EXPECT_EQ(sortFailure(32, 4, 429), FailureKind::transient);
    EXPECT_EQ(sortFailure(32, 4, 400), FailureKind::permanent);
    EXPECT_EQ(sortFailure(404, 5, 404), FailureKind::permanent);
    EXPECT_EQ(sortFailure(44, 5, 0), FailureKind::permanent); // scheme refused
    EXPECT_EQ(sortFailure(46, 5, 0), FailureKind::permanent); // changed
}

TEST(QueueBackoff, GrowsToItsCapWithFullJitter)
{
    std::mt19937_64 random(7);
    long long highest[12] = {};
    long long lowest = 1000000;
    for (int draw = 0; draw < 2000; ++draw) {
        for (int failures = 1; failures <= 12; ++failures) {
            long long const pause = detail::backoffDelay(failures, 30s, 3600s, random).count();
            lowest = std::min(lowest, pause);
            highest[failures - 1] = std::max(highest[failures - 1], pause);
        }
    }
    EXPECT_EQ(lowest, 1) << "never taken again at once";
    EXPECT_LE(highest[0], 30);
    EXPECT_GT(highest[0], 25);
    EXPECT_LE(highest[2], 120);
    EXPECT_GT(highest[2], 100);
    EXPECT_LE(highest[11], 3600);
    EXPECT_GT(highest[11], 3400);
}

} // namespace
} // namespace tavix::test
