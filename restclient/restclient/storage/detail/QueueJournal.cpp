#include <restclient/storage/detail/QueueJournal.h>

#include <json/json.h>
#include <sqlite3.h>

#include <memory>
#include <sstream>
#include <stdexcept>

namespace tavix::restclient::storage::detail {

namespace {

// Internal only: every public operation turns it into an error code at its boundary.
struct SqlFailure {
    int rc;
};

class Statement {
public:
    Statement(sqlite3* db, char const* sql)
    {
        if (int const rc = sqlite3_prepare_v2(db, sql, -1, &m_statement, nullptr); rc != SQLITE_OK) {
            throw SqlFailure{rc};
        }
    }
    ~Statement() { sqlite3_finalize(m_statement); }
    Statement(Statement const&) = delete;
    Statement& operator=(Statement const&) = delete;

    Statement& bind(int index, std::int64_t value)
    {
        check(sqlite3_bind_int64(m_statement, index, value));
        return *this;
    }
    Statement& bind(int index, std::string const& value)
    {
        check(sqlite3_bind_text(m_statement, index, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT));
        return *this;
    }
    // True while there is a row.
    bool step()
    {
        int const rc = sqlite3_step(m_statement);
        if (rc == SQLITE_ROW) return true;
        if (rc == SQLITE_DONE) return false;
        throw SqlFailure{rc};
    }
    std::int64_t integer(int column) const { return sqlite3_column_int64(m_statement, column); }
    bool null(int column) const { return sqlite3_column_type(m_statement, column) == SQLITE_NULL; }
    std::string text(int column) const
    {
        auto const* data = reinterpret_cast<char const*>(sqlite3_column_text(m_statement, column));
        return data ? std::string(data, static_cast<std::size_t>(sqlite3_column_bytes(m_statement, column)))
                    : std::string();
    }

private:
    static void check(int rc)
    {
        if (rc != SQLITE_OK) throw SqlFailure{rc};
    }
    sqlite3_stmt* m_statement = nullptr;
};

char const* const kSchema = R"(
CREATE TABLE IF NOT EXISTS entries(
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  file TEXT NOT NULL, held TEXT NOT NULL, hold INTEGER NOT NULL,
  name TEXT NOT NULL, type TEXT NOT NULL, metadata TEXT NOT NULL,
  size INTEGER NOT NULL, mtime_ns INTEGER NOT NULL, md5 TEXT NOT NULL,
  state INTEGER NOT NULL, enqueued INTEGER NOT NULL, next_attempt INTEGER NOT NULL,
  attempts INTEGER NOT NULL DEFAULT 0, failures INTEGER NOT NULL DEFAULT 0, in_doubt INTEGER NOT NULL DEFAULT 0,
  error_code INTEGER NOT NULL DEFAULT 0, error_message TEXT NOT NULL DEFAULT '',
  source_dev INTEGER NOT NULL DEFAULT 0, source_ino INTEGER NOT NULL DEFAULT 0);
CREATE INDEX IF NOT EXISTS entries_due ON entries(state, next_attempt);
CREATE TABLE IF NOT EXISTS totals(name TEXT PRIMARY KEY, value INTEGER NOT NULL);
)";

#define ENTRY_COLUMNS                                                                                                  \
    "id, file, held, hold, name, type, metadata, size, mtime_ns, md5, state, enqueued, next_attempt, attempts, "       \
    "failures, in_doubt, error_code, error_message, source_dev, source_ino"

std::string metadataText(std::map<std::string, std::string> const& metadata)
{
    Json::Value object(Json::objectValue);
    for (auto const& [key, value] : metadata) object[key] = value;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, object);
}

std::map<std::string, std::string> metadataOf(std::string const& text)
{
    Json::Value object;
    std::istringstream in(text);
    std::map<std::string, std::string> metadata;
    if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &object, nullptr) || !object.isObject()) return metadata;
    for (auto const& key : object.getMemberNames())
        if (object[key].isString()) metadata[key] = object[key].asString();
    return metadata;
}

JournalEntry entryOf(Statement const& row)
{
    JournalEntry e;
    QueueEntry& q = e.entry;
    q.id = row.integer(0);
    q.file = row.text(1);
    e.held = row.text(2);
    q.hold = static_cast<HoldMode>(row.integer(3));
    q.name = row.text(4);
    q.type = row.text(5);
    q.metadata = metadataOf(row.text(6));
    q.size = row.integer(7);
    e.mtimeNs = row.integer(8);
    q.md5 = row.text(9);
    q.state = static_cast<EntryState>(row.integer(10));
    q.enqueued = row.integer(11);
    q.nextAttempt = row.integer(12);
    q.attempts = static_cast<int>(row.integer(13));
    e.failures = static_cast<int>(row.integer(14));
    q.inDoubt = row.integer(15) != 0;
    q.errorCode = static_cast<int>(row.integer(16));
    q.errorMessage = row.text(17);
    e.sourceDev = static_cast<std::uint64_t>(row.integer(18));
    e.sourceIno = static_cast<std::uint64_t>(row.integer(19));
    return e;
}

std::vector<JournalEntry> entriesOf(Statement& query)
{
    std::vector<JournalEntry> entries;
    while (query.step()) entries.push_back(entryOf(query));
    return entries;
}

void count(sqlite3* db, char const* total, std::int64_t by = 1)
{
    Statement(db, "INSERT INTO totals(name, value) VALUES(?1, ?2) ON CONFLICT(name) DO UPDATE SET value = value + ?2")
        .bind(1, std::string(total))
        .bind(2, by)
        .step();
}

void deleteEntry(sqlite3* db, std::int64_t id)
{
    Statement(db, "DELETE FROM entries WHERE id = ?1").bind(1, id).step();
}

bool heldInSpool(HoldMode hold) { return hold != HoldMode::reference; }

} // namespace

QueueJournal::QueueJournal(sqlite3* db) : m_db(db) {}

QueueJournal::~QueueJournal() { sqlite3_close_v2(m_db); }

std::unique_ptr<QueueJournal> QueueJournal::open(std::string const& file, std::chrono::milliseconds busyTimeout,
                                                 boost::system::error_code& ec, std::string& detail)
{
    sqlite3* db = nullptr;
    int rc =
        sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
    std::unique_ptr<QueueJournal> journal(new QueueJournal(db));
    if (rc == SQLITE_OK) {
        sqlite3_busy_timeout(db, static_cast<int>(busyTimeout.count()));
        // WAL: readers never wait for the runner; FULL: a commit is on disk when it returns. The
        // WAL file is cut back after checkpoints so that a drained spool returns to its size.
        rc = sqlite3_exec(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA journal_size_limit=1048576;",
                          nullptr, nullptr, nullptr);
    }
    if (rc == SQLITE_OK) rc = sqlite3_exec(db, kSchema, nullptr, nullptr, nullptr);
    if (rc == SQLITE_OK) {
        // Reading the schema back proves the file is a database and not a damaged one.
        rc = sqlite3_exec(db, "SELECT COUNT(*) FROM entries; SELECT COUNT(*) FROM totals;", nullptr, nullptr, nullptr);
    }
    if (rc != SQLITE_OK) {
        ec = journal->lastError(rc);
        detail = file + ": " + (db ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
        return nullptr;
    }
    return journal;
}

boost::system::error_code QueueJournal::lastError(int rc) const
{
    int const primary = rc & 0xff;
    return primary == SQLITE_BUSY || primary == SQLITE_LOCKED ? QueueError::journalBusy : QueueError::journalUnusable;
}

// Runs `body` under the mutex, turning an SQL failure into `ec`.
#define JOURNAL_GUARD(fallback, body)                                                                                  \
    std::lock_guard<std::mutex> lock(m_mutex);                                                                         \
    try {                                                                                                              \
        body                                                                                                           \
    } catch (SqlFailure const& failure) {                                                                              \
        ec = lastError(failure.rc);                                                                                    \
        return fallback;                                                                                               \
    }

bool QueueJournal::transaction(std::function<bool()> const& work, boost::system::error_code& ec)
{
    if (!exec("BEGIN IMMEDIATE", ec)) return false;
    bool done = false;
    try {
        done = work();
    } catch (SqlFailure const& failure) {
        ec = lastError(failure.rc);
    }
    if (done && exec("COMMIT", ec)) return true;
    boost::system::error_code ignored;
    exec("ROLLBACK", ignored);
    return false;
}

bool QueueJournal::exec(char const* sql, boost::system::error_code& ec)
{
    int const rc = sqlite3_exec(m_db, sql, nullptr, nullptr, nullptr);
    if (rc == SQLITE_OK) return true;
    ec = lastError(rc);
    return false;
}

bool QueueJournal::fits(std::uint64_t heldBytes, QuotaLimits const& quota, boost::system::error_code& ec)
{
    JOURNAL_GUARD(false, {
        Statement usage(m_db, "SELECT COUNT(*), COALESCE(SUM(CASE WHEN hold != 2 THEN size END), 0) FROM entries");
        usage.step();
        auto const entries = static_cast<std::uint64_t>(usage.integer(0));
        auto const bytes = static_cast<std::uint64_t>(usage.integer(1));
        return (quota.entries == 0 || entries + 1 <= quota.entries)
            && (quota.bytes == 0 || bytes + heldBytes <= quota.bytes);
    })
}

bool QueueJournal::insert(JournalEntry& e, QuotaLimits const& quota, std::vector<JournalEntry>& dropped,
                          boost::system::error_code& ec, std::string& detail)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::uint64_t const heldBytes = heldInSpool(e.entry.hold) ? static_cast<std::uint64_t>(e.entry.size) : 0;
    std::vector<JournalEntry> removed;
    bool const done = transaction(
        [&] {
            for (;;) {
                Statement usage(m_db,
                                "SELECT COUNT(*), COALESCE(SUM(CASE WHEN hold != 2 THEN size END), 0) FROM entries");
                usage.step();
                auto const entries = static_cast<std::uint64_t>(usage.integer(0));
                auto const bytes = static_cast<std::uint64_t>(usage.integer(1));
                bool const over = (quota.entries != 0 && entries + 1 > quota.entries)
                    || (quota.bytes != 0 && bytes + heldBytes > quota.bytes);
                if (!over) break;
                Statement oldest(m_db, "SELECT " ENTRY_COLUMNS " FROM entries WHERE state != 1 ORDER BY id LIMIT 1");
                if (!quota.dropOldest || !oldest.step()) {
                    ec = QueueError::spoolFull;
                    detail = "the spool holds " + std::to_string(entries) + " entries and " + std::to_string(bytes)
                        + " bytes (quota " + std::to_string(quota.entries) + " entries, " + std::to_string(quota.bytes)
                        + " bytes)";
                    return false;
                }
                removed.push_back(entryOf(oldest));
                deleteEntry(m_db, removed.back().entry.id);
                count(m_db, "dropped");
            }
            QueueEntry const& q = e.entry;
            Statement add(m_db,
                          "INSERT INTO entries(file, held, hold, name, type, metadata, size, mtime_ns, md5, "
                          "state, enqueued, next_attempt, source_dev, source_ino) "
                          "VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, 0, ?10, ?10, ?11, ?12)");
            add.bind(1, q.file).bind(2, e.held).bind(3, static_cast<std::int64_t>(q.hold)).bind(4, q.name);
            add.bind(5, q.type).bind(6, metadataText(q.metadata)).bind(7, q.size).bind(8, e.mtimeNs).bind(9, q.md5);
            add.bind(10, q.enqueued).bind(11, static_cast<std::int64_t>(e.sourceDev));
            add.bind(12, static_cast<std::int64_t>(e.sourceIno));
            add.step();
            e.entry.id = sqlite3_last_insert_rowid(m_db);
            e.entry.nextAttempt = q.enqueued;
            return true;
        },
        ec);
    if (done) dropped = std::move(removed);
    else if (ec != QueueError::spoolFull) detail = sqlite3_errmsg(m_db);
    return done;
}

std::optional<JournalEntry> QueueJournal::claimDue(std::int64_t now, QueueOrder order, boost::system::error_code& ec)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::optional<JournalEntry> claimed;
    transaction(
        [&] {
            Statement due(m_db,
                          order == QueueOrder::oldestFirst
                              ? "SELECT " ENTRY_COLUMNS " FROM entries WHERE state = 0 AND next_attempt <= ?1 "
                                "ORDER BY id LIMIT 1"
                              : "SELECT " ENTRY_COLUMNS " FROM entries WHERE state = 0 AND next_attempt <= ?1 "
                                "ORDER BY id DESC LIMIT 1");
            due.bind(1, now);
            if (!due.step()) return true;
            claimed = entryOf(due);
            claimed->entry.state = EntryState::sending;
            // An entry in doubt is first checked, and counts an attempt only if it is sent.
            if (!claimed->entry.inDoubt) ++claimed->entry.attempts;
            Statement(m_db, "UPDATE entries SET state = 1, attempts = ?2 WHERE id = ?1")
                .bind(1, claimed->entry.id)
                .bind(2, claimed->entry.attempts)
                .step();
            return true;
        },
        ec);
    if (ec) claimed.reset();
    return claimed;
}

std::optional<std::int64_t> QueueJournal::nextDue(boost::system::error_code& ec)
{
    JOURNAL_GUARD(std::nullopt, {
        Statement soonest(m_db, "SELECT MIN(next_attempt) FROM entries WHERE state = 0");
        if (!soonest.step() || soonest.null(0)) return std::nullopt;
        return soonest.integer(0);
    })
}

int QueueJournal::recoverSending(boost::system::error_code& ec)
{
    JOURNAL_GUARD(0, {
        Statement(m_db, "UPDATE entries SET state = 0, in_doubt = 1 WHERE state = 1").step();
        return sqlite3_changes(m_db);
    })
}

bool QueueJournal::remove(std::int64_t id, char const* total, bool lazy, boost::system::error_code& ec)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    // A lazy commit is made durable by the next synced one (the WAL is written in order); lost to
    // a power cut, the entry is found stored when it is checked as in doubt.
    if (lazy && !exec("PRAGMA synchronous=NORMAL", ec)) return false;
    bool const done = transaction(
        [&] {
            deleteEntry(m_db, id);
            if (sqlite3_changes(m_db) == 1) count(m_db, total);
            return true;
        },
        ec);
    boost::system::error_code ignored;
    if (lazy) exec("PRAGMA synchronous=FULL", ignored);
    return done;
}

bool QueueJournal::reschedule(JournalEntry const& e, std::int64_t next, boost::system::error_code& ec)
{
    JOURNAL_GUARD(false, {
        Statement update(m_db,
                         "UPDATE entries SET state = 0, next_attempt = ?2, failures = ?3, in_doubt = ?4, "
                         "error_code = ?5, error_message = ?6 WHERE id = ?1");
        update.bind(1, e.entry.id).bind(2, next).bind(3, e.failures).bind(4, e.entry.inDoubt ? 1 : 0);
        update.bind(5, e.entry.errorCode).bind(6, e.entry.errorMessage).step();
        return true;
    })
}

bool QueueJournal::markFailed(JournalEntry const& e, boost::system::error_code& ec){
    JOURNAL_GUARD(false,
                  {
                      Statement update(
                          m_db,
                          "UPDATE entries SET state = 2, in_doubt = ?2, error_code = ?3, error_message = ?4, "
                          "attempts = ?5 WHERE id = ?1");
                      update.bind(1, e.entry.id).bind(2, e.entry.inDoubt ? 1 : 0).bind(3, e.entry.errorCode);
                      update.bind(4, e.entry.errorMessage).bind(5, e.entry.attempts).step();
                      return true;
                  })}

std::vector<JournalEntry> QueueJournal::expire(std::int64_t cutoff, boost::system::error_code& ec)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<JournalEntry> expired;
    transaction(
        [&] {
            Statement old(m_db, "SELECT " ENTRY_COLUMNS " FROM entries WHERE state != 1 AND enqueued < ?1");
            old.bind(1, cutoff);
            expired = entriesOf(old);
            for (auto const& e : expired) deleteEntry(m_db, e.entry.id);
            if (!expired.empty()) count(m_db, "expired", static_cast<std::int64_t>(expired.size()));
            return true;
        },
        ec);
    if (ec) expired.clear();
    return expired;
}

std::vector<JournalEntry> QueueJournal::list(std::optional<EntryState> state, boost::system::error_code& ec){
    JOURNAL_GUARD({},
                  {
                      Statement query(m_db,
                                      "SELECT " ENTRY_COLUMNS " FROM entries WHERE ?1 < 0 OR state = ?1 ORDER BY id");
                      query.bind(1, state ? static_cast<std::int64_t>(*state) : -1);
                      return entriesOf(query);
                  })}

std::optional<JournalEntry> QueueJournal::find(std::int64_t id, boost::system::error_code& ec){
    JOURNAL_GUARD(std::nullopt,
                  {
                      Statement query(m_db, "SELECT " ENTRY_COLUMNS " FROM entries WHERE id = ?1");
                      query.bind(1, id);
                      if (!query.step()) return std::nullopt;
                      return entryOf(query);
                  })}

QueueCounts QueueJournal::counts(boost::system::error_code& ec){
    JOURNAL_GUARD({},
                  {
                      QueueCounts counts;
                      Statement states(m_db, "SELECT state, COUNT(*) FROM entries GROUP BY state");
                      while (states.step()) {
                          auto const n = static_cast<std::uint64_t>(states.integer(1));
                          switch (static_cast<EntryState>(states.integer(0))) {
                          case EntryState::pending: counts.pending = n; break;
                          case EntryState::sending: counts.sending = n; break;
                          case EntryState::failed: counts.failed = n; break;
                          }
                      }
                      Statement totals(m_db, "SELECT name, value FROM totals");
                      while (totals.step()) {
                          auto const name = totals.text(0);
                          auto const n = static_cast<std::uint64_t>(totals.integer(1));
                          if (name == "delivered") counts.delivered = n;
                          else if (name == "expired") counts.expired = n;
                          else if (name == "dropped") counts.dropped = n;
                      }
                      Statement bytes(m_db, "SELECT COALESCE(SUM(size), 0) FROM entries WHERE hold != 2");
                      bytes.step();
                      counts.spoolBytes = static_cast<std::uint64_t>(bytes.integer(0));
                      return counts;
                  })}

std::uint64_t QueueJournal::retry(std::int64_t id, std::int64_t now, boost::system::error_code& ec){
    JOURNAL_GUARD(0,
                  {
                      Statement update(m_db,
                                       id == 0 ? "UPDATE entries SET state = 0, next_attempt = ?2, failures = 0 "
                                                 "WHERE state = 2 AND ?1 = 0"
                                               : "UPDATE entries SET state = 0, next_attempt = ?2, failures = 0 "
                                                 "WHERE id = ?1 AND state != 1");
                      update.bind(1, id).bind(2, now).step();
                      return static_cast<std::uint64_t>(sqlite3_changes(m_db));
                  })}

std::optional<JournalEntry> QueueJournal::drop(std::int64_t id, boost::system::error_code& ec)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::optional<JournalEntry> dropped;
    transaction(
        [&] {
            Statement query(m_db, "SELECT " ENTRY_COLUMNS " FROM entries WHERE id = ?1 AND state != 1");
            query.bind(1, id);
            if (!query.step()) return true;
            dropped = entryOf(query);
            deleteEntry(m_db, id);
            count(m_db, "dropped");
            return true;
        },
        ec);
    if (ec) dropped.reset();
    return dropped;
}

std::vector<std::string> QueueJournal::heldFiles(boost::system::error_code& ec)
{
    JOURNAL_GUARD({}, {
        Statement query(m_db, "SELECT held FROM entries WHERE hold != 2");
        std::vector<std::string> held;
        while (query.step()) held.push_back(query.text(0));
        return held;
    })
}

} // namespace tavix::restclient::storage::detail
