// What the upload queue costs beside doing the same by hand, against the emulator in this process
// over HTTPS with a client certificate:
//  1. enqueue latency, copy and link, a 1 KB and a big file, beside a durable copy by hand
//     (open/read/write/fsync, then fsync of the directory) and link() with an fsync of the
//     directory; the queue also takes the file's MD5, whose time alone is shown;
//  2. small files drained through the queue one at a time, beside one FileUploader after another
//     for the same files; the emulator must hold every one of them after each;
//  3. a big drain with the queue's rate limit, its measured rate beside the cap: from start() to
//     the last delivery, and over the transfers alone (first byte sent to delivery).
// Nothing asserts on speed; a failed upload or a missing object ends the run with status 1.
//
//   queue_bench [--big 100M] [--files 500] [--rounds 4] [--capped 200M] [--rate 10M]
//               [--small-enqueues 21] [--big-enqueues 3] [--sections 123]
//
// Sizes take K, M and G (powers of 1000); KB and MB are 10^3 and 10^6 bytes. The rate is bytes
// per second (QUEUE_BENCH_RATE, when set, is the default). With several rounds the drains
// alternate which goes first and each side's best is compared. `--sections 2` runs the second
// part alone, for a profiler.

#include <bench/queue/ByHand.h>
#include <restclient/storage/FileUploader.h>
#include <restclient/storage/UploadQueue.h>
#include <tavix/crypto/FileHash.h>
#include <tools/emulator/CloudEmulator.h>

#include <boost/filesystem/fstream.hpp>
#include <boost/filesystem/operations.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = boost::filesystem;
using namespace tavix;
using namespace tavix::restclient::storage;
using Clock = std::chrono::steady_clock;

constexpr char const* kAppKey = "queue-bench";
constexpr std::uint64_t kSmall = 1000;

struct Options {
    std::uint64_t big = 100000000;
    unsigned files = 500;
    unsigned rounds = 4;
    std::uint64_t capped = 200000000;
    std::uint64_t rate = 10000000;
    unsigned smallEnqueues = 21;
    unsigned bigEnqueues = 3;
    std::string sections = "123"; // which of the three parts run
};

std::uint64_t parseSize(std::string const& text)
{
    std::size_t end = 0;
    std::uint64_t value = std::stoull(text, &end);
    std::string const suffix = text.substr(end);
    if (suffix == "K") value *= 1000;
    else if (suffix == "M") value *= 1000000;
    else if (suffix == "G") value *= 1000000000;
    else if (!suffix.empty()) throw std::invalid_argument("bad size " + text);
    if (value == 0) throw std::invalid_argument("a size of 0: " + text);
    return value;
}

Options parseOptions(int argc, char** argv)
{
    Options o;
    if (char const* rate = std::getenv("QUEUE_BENCH_RATE")) o.rate = parseSize(rate);
    for (int i = 1; i < argc; i += 2) {
        std::string const name = argv[i];
        if (i + 1 >= argc) throw std::invalid_argument(name + " needs a value");
        std::string const value = argv[i + 1];
        auto const count = [&] { return static_cast<unsigned>(std::max<std::uint64_t>(1, parseSize(value))); };
        if (name == "--big") o.big = parseSize(value);
        else if (name == "--files") o.files = count();
        else if (name == "--rounds") o.rounds = count();
        else if (name == "--capped") o.capped = parseSize(value);
        else if (name == "--rate") o.rate = parseSize(value);
        else if (name == "--small-enqueues") o.smallEnqueues = count();
        else if (name == "--big-enqueues") o.bigEnqueues = count();
        else if (name == "--sections") o.sections = value;
        else throw std::invalid_argument("unknown option " + name);
    }
    return o;
}

std::string sizeText(std::uint64_t bytes)
{
    if (bytes >= 1000000000 && bytes % 1000000000 == 0) return fmt::format("{} GB", bytes / 1000000000);
    if (bytes >= 1000000 && bytes % 1000000 == 0) return fmt::format("{} MB", bytes / 1000000);
    if (bytes >= 1000 && bytes % 1000 == 0) return fmt::format("{} KB", bytes / 1000);
    return fmt::format("{} B", bytes);
}

std::string certFile(char const* name) { return std::string(RESTCLIENT_TEST_CERT_DIR) + "/" + name; }

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

double timed(std::function<void()> const& work)
{
    auto const start = Clock::now();
    work();
    return secondsSince(start);
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    std::size_t const middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// Bytes that differ from file to file, so that no two small files have the same MD5.
void writeFile(fs::path const& path, std::uint64_t size, unsigned seed)
{
    fs::ofstream out(path, std::ios::binary);
    std::string block(1 << 20, '\0');
    std::uint64_t x = 0x9e3779b97f4a7c15ull * (seed + 1);
    for (char& c : block) {
        x ^= x << 13, x ^= x >> 7, x ^= x << 17;
        c = static_cast<char>(x);
    }
    for (std::uint64_t left = size; left > 0;) {
        auto const n = static_cast<std::size_t>(std::min<std::uint64_t>(left, block.size()));
        out.write(block.data(), static_cast<std::streamsize>(n));
        left -= n;
    }
    if (!out) throw std::runtime_error("cannot write " + path.string());
}

std::unique_ptr<UploadQueue> openQueue(fs::path const& spool, std::uint64_t rateLimit = 0)
{
    UploadQueueOptions options;
    options.spool = spool;
    options.appKey = kAppKey;
    options.caFile = certFile("ca.pem");
    options.rateLimit = rateLimit;
    boost::system::error_code ec;
    std::string detail;
    auto queue = UploadQueue::open(options, ec, &detail);
    if (!queue) throw std::runtime_error("the queue does not open: " + ec.message() + ": " + detail);
    return queue;
}

std::int64_t enqueue(UploadQueue& queue, fs::path const& file, std::string const& name, HoldMode hold)
{
    boost::system::error_code ec;
    std::string detail;
    auto const id = queue.enqueue(file, name, "log", {}, hold, ec, &detail);
    if (id == 0) throw std::runtime_error("enqueue " + file.string() + ": " + ec.message() + ": " + detail);
    return id;
}

std::size_t storedWithPrefix(emulator::CloudEmulator const& cloud, std::string const& prefix, std::uint64_t size)
{
    std::size_t count = 0;
    for (auto const& object : cloud.objects())
        count += object.uploaded && object.contentLength == size && object.name.rfind(prefix, 0) == 0;
    return count;
}

void expectStored(emulator::CloudEmulator const& cloud, std::string const& prefix, std::size_t expected,
                  std::uint64_t size)
{
    std::size_t const stored = storedWithPrefix(cloud, prefix, size);
    if (stored != expected) {
        throw std::runtime_error(
            fmt::format("the emulator holds {} objects under {}, not {}", stored, prefix, expected));
    }
}

// The median of 21 synced small writes in `dir`, in ms: how busy the disk is now.
double syncedWriteMs(fs::path const& dir)
{
    std::vector<double> syncs;
    for (int i = 0; i < 21; ++i) syncs.push_back(timed([&] { bench::smallSyncedWrite(dir); }));
    return median(syncs) * 1e3;
}

// Section 1 -----------------------------------------------------------------------------------

struct EnqueueRow {
    std::string label;
    double queue = 0, byHand = 0, md5 = 0; // medians, seconds
};

// `times` enqueues of `file` and as many by-hand holds, alternating which goes first; each
// entry is dropped again (untimed), so that the spool holds one at a time.
EnqueueRow measureEnqueue(UploadQueue& queue, fs::path const& file, HoldMode hold, unsigned times,
                          fs::path const& handDir)
{
    std::vector<double> ours, theirs, digest;
    for (unsigned i = 0; i < times; ++i) {
        fs::path const target = handDir / fmt::format("held-{}", i);
        auto const byHand = [&] {
            theirs.push_back(timed([&] {
                if (hold == HoldMode::copy) bench::durableCopy(file, target);
                else bench::durableLink(file, target);
            }));
            fs::remove(target);
        };
        auto const viaQueue = [&] {
            std::int64_t id = 0;
            ours.push_back(timed([&] { id = enqueue(queue, file, "enqueue/" + file.filename().string(), hold); }));
            if (auto ec = queue.drop(id)) throw std::runtime_error("drop: " + ec.message());
        };
        if (i % 2) byHand(), viaQueue();
        else viaQueue(), byHand();
        digest.push_back(timed([&] {
            boost::system::error_code ec;
            crypto::computeFileHash(file.string(), "md5", ec, crypto::HexLower);
            if (ec) throw std::runtime_error("md5: " + ec.message());
        }));
    }
    return {"", median(ours), median(theirs), median(digest)};
}

void enqueueLatency(Options const& o, fs::path const& dir)
{
    fs::path const small = dir / "small.bin", big = dir / "big.bin", handDir = dir / "by-hand";
    fs::create_directories(handDir);
    writeFile(small, kSmall, 1);
    writeFile(big, o.big, 2);
    bench::durableCopy(big, handDir / "warm"); // the source in the page cache, the disk awake
    fs::remove(handDir / "warm");
    auto queue = openQueue(dir / "spool-enqueue");

    fmt::print("1. enqueue latency, the queue not running (median of {} for {}, of {} for {})\n", o.smallEnqueues,
               sizeText(kSmall), o.bigEnqueues, sizeText(o.big));
    fmt::print("   by hand: copy = open/read/write/fsync + fsync of the directory; link = link() + fsync of the "
               "directory\n");
    fmt::print("   this disk: a 4 KiB write to a new file and its fsync take {:.2f} ms (median of 21)\n",
               syncedWriteMs(handDir));
    fmt::print("  {:<16} {:>12} {:>12} {:>8} {:>14}\n", "hold, size", "queue ms", "by hand ms", "ratio",
               "MD5 alone ms");
    for (HoldMode const hold : {HoldMode::copy, HoldMode::link}) {
        for (bool const isBig : {false, true}) {
            EnqueueRow const row =
                measureEnqueue(*queue, isBig ? big : small, hold, isBig ? o.bigEnqueues : o.smallEnqueues, handDir);
            std::string const label =
                fmt::format("{}, {}", hold == HoldMode::copy ? "copy" : "link", sizeText(isBig ? o.big : kSmall));
            fmt::print("  {:<16} {:12.3f} {:12.3f} {:8.2f} {:14.3f}\n", label, row.queue * 1e3, row.byHand * 1e3,
                       row.queue / row.byHand, row.md5 * 1e3);
        }
    }
    fs::remove(big);
}

// Section 2 -----------------------------------------------------------------------------------

double uploadOneAfterAnother(std::vector<fs::path> const& files, std::string const& prefix)
{
    return timed([&] {
        for (std::size_t i = 0; i < files.size(); ++i) {
            FileUploader uploader(files[i], prefix + std::to_string(i), "log", {}, kAppKey);
            uploader.SetCACertFile(certFile("ca.pem"));
            if (!uploader.WaitFinished(std::chrono::minutes(5)) || uploader.errorCode != 0) {
                throw std::runtime_error(
                    fmt::format("upload {} failed: {} {}", i, int(uploader.errorCode), uploader.errorMessage));
            }
        }
    });
}

// Delivery times as the runner reports them.
class Deliveries {
public:
    UploadQueue::Notify notify()
    {
        return [this](QueueEntry const& e, EntryOutcome outcome) {
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                if (outcome == EntryOutcome::delivered) m_at[e.id] = Clock::now();
                else m_failures.push_back(fmt::format("entry {}: {} {}", e.id, e.errorCode, e.errorMessage));
            }
            m_changed.notify_all();
        };
    }
    // Until `expected` entries were delivered or one failed; false when `timeout` passed first.
    bool waitFor(std::size_t expected, Clock::duration timeout) const
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, timeout, [&] { return m_at.size() >= expected || !m_failures.empty(); });
    }
    // The last delivery; throws unless exactly `expected` entries were delivered and none failed.
    Clock::time_point last(std::size_t expected) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_failures.empty()) throw std::runtime_error("the queue failed " + m_failures.front());
        if (m_at.size() != expected) {
            throw std::runtime_error(fmt::format("{} entries delivered, not {}", m_at.size(), expected));
        }
        Clock::time_point latest{};
        for (auto const& [id, at] : m_at) latest = std::max(latest, at);
        return latest;
    }
    std::optional<Clock::time_point> deliveredAt(std::int64_t id) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto const found = m_at.find(id);
        return found == m_at.end() ? std::nullopt : std::optional<Clock::time_point>(found->second);
    }

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::map<std::int64_t, Clock::time_point> m_at;
    std::vector<std::string> m_failures;
};

struct Drain {
    double enqueue = 0; // seconds for all the enqueues
    double drain = 0;   // start() to the last delivery
};

Drain drainThroughQueue(std::vector<fs::path> const& files, fs::path const& spool, std::string const& prefix)
{
    auto queue = openQueue(spool);
    Drain result;
    result.enqueue = timed([&] {
        for (std::size_t i = 0; i < files.size(); ++i)
            enqueue(*queue, files[i], prefix + std::to_string(i), HoldMode::copy);
    });
    Deliveries deliveries;
    auto const start = Clock::now();
    if (auto ec = queue->start(deliveries.notify())) throw std::runtime_error("start: " + ec.message());
    // Not waitIdle: it can report idle while the last entry is being claimed.
    if (!deliveries.waitFor(files.size(), std::chrono::minutes(10))) {
        throw std::runtime_error("the queue did not drain in 10 minutes");
    }
    result.drain = std::chrono::duration<double>(deliveries.last(files.size()) - start).count();
    queue->stop();
    return result;
}

void smallFilesDrain(Options const& o, fs::path const& dir, emulator::CloudEmulator const& cloud)
{
    fs::path const many = dir / "many";
    fs::create_directories(many);
    std::vector<fs::path> files;
    for (unsigned i = 0; i < o.files; ++i) {
        files.push_back(many / fmt::format("reading-{:04}.bin", i));
        writeFile(files.back(), kSmall, 100 + i);
    }
    // The process's first upload (token, Account URL, OpenSSL) is left out of both.
    uploadOneAfterAnother({files.front()}, "warm/");

    fmt::print("\n2. {} files of {} drained, concurrency 1 (copy), beside one FileUploader after another; "
               "{} round(s), alternating which goes first\n",
               o.files, sizeText(kSmall), o.rounds);
    fmt::print("  {:<7} {:>14} {:>12} {:>14} {:>12} {:>7} {:>18} {:>10}\n", "round", "one by one s", "per file ms",
               "queue drain s", "per file ms", "ratio", "queue enqueues s", "fsync ms");
    double bestSerial = 1e9, bestQueue = 1e9;
    for (unsigned round = 0; round < o.rounds; ++round) {
        std::string const serialPrefix = fmt::format("serial-{}/", round),
                          queuePrefix = fmt::format("queue-{}/", round);
        double serial = 0;
        Drain drain;
        auto const runSerial = [&] {
            serial = uploadOneAfterAnother(files, serialPrefix);
            expectStored(cloud, serialPrefix, files.size(), kSmall);
        };
        auto const runQueue = [&] {
            drain = drainThroughQueue(files, dir / fmt::format("spool-drain-{}", round), queuePrefix);
            expectStored(cloud, queuePrefix, files.size(), kSmall);
        };
        if (round % 2) runQueue(), runSerial();
        else runSerial(), runQueue();
        bestSerial = std::min(bestSerial, serial);
        bestQueue = std::min(bestQueue, drain.drain);
        fmt::print("  {:<7} {:14.2f} {:12.2f} {:14.2f} {:12.2f} {:7.2f} {:18.2f} {:10.2f}\n", round + 1, serial,
                   serial * 1e3 / o.files, drain.drain, drain.drain * 1e3 / o.files, drain.drain / serial,
                   drain.enqueue, syncedWriteMs(many));
    }
    fmt::print("  (fsync ms: the median of 21 synced 4 KiB writes right after the round, how busy the disk was)\n");
    fmt::print("  best: one by one {:.2f} s, queue {:.2f} s, queue / one by one {:.2f} (aimed at <= 1.1); "
               "the emulator holds {} objects of each run\n",
               bestSerial, bestQueue, bestQueue / bestSerial, o.files);
}

// Section 3 -----------------------------------------------------------------------------------

void cappedDrain(Options const& o, fs::path const& dir, emulator::CloudEmulator const& cloud)
{
    fs::path const file = dir / "capped.bin";
    writeFile(file, o.capped, 3);
    auto queue = openQueue(dir / "spool-capped", o.rate);
    std::int64_t const id = enqueue(*queue, file, "capped/" + file.filename().string(), HoldMode::link);

    Deliveries deliveries;
    auto const start = Clock::now();
    if (auto ec = queue->start(deliveries.notify())) throw std::runtime_error("start: " + ec.message());
    // The first byte of the transfer, seen by polling the progress.
    std::optional<Clock::time_point> firstByte;
    auto const deadline = start + std::chrono::seconds(60 + 3 * o.capped / o.rate);
    while (!deliveries.deliveredAt(id) && Clock::now() < deadline) {
        if (!firstByte) {
            for (auto const& p : queue->progress())
                if (p.id == id && p.sent > 0) firstByte = Clock::now();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(firstByte ? 50 : 2));
    }
    Clock::time_point const end = deliveries.last(1);
    queue->stop();
    expectStored(cloud, "capped/", 1, o.capped);
    if (!firstByte) throw std::runtime_error("no progress was seen");

    double const whole = std::chrono::duration<double>(end - start).count();
    double const transfer = std::chrono::duration<double>(end - *firstByte).count();
    double const cap = static_cast<double>(o.rate);
    auto const rate = [&](double seconds) { return static_cast<double>(o.capped) / seconds; };
    fmt::print("\n3. {} drained (one entry) with rateLimit {:.2f} MB/s, over HTTPS\n", sizeText(o.capped), cap / 1e6);
    fmt::print("  {:<34} {:>10} {:>10} {:>14}\n", "measured over", "seconds", "MB/s", "off the cap %");
    fmt::print("  {:<34} {:10.2f} {:10.3f} {:+14.2f}\n", "start() to delivered", whole, rate(whole) / 1e6,
               (rate(whole) / cap - 1) * 100);
    fmt::print("  {:<34} {:10.2f} {:10.3f} {:+14.2f}\n", "first byte sent to delivered", transfer, rate(transfer) / 1e6,
               (rate(transfer) / cap - 1) * 100);
    fs::remove(file);
}

} // namespace

int main(int argc, char** argv)
{
    std::string const usage = fmt::format("usage: {} [--big 100M] [--files 500] [--rounds 4] [--capped 200M] "
                                          "[--rate 10M] [--small-enqueues 21] [--big-enqueues 3] [--sections 123]\n",
                                          argv[0]);
    if (argc == 2 && (std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h")) {
        fmt::print("{}", usage);
        return 0;
    }
    Options options;
    try {
        options = parseOptions(argc, argv);
    } catch (std::exception const& e) {
        fmt::print(stderr, "{}\n{}", e.what(), usage);
        return 2;
    }
    fs::path const dir = fs::temp_directory_path() / fs::unique_path("queue-bench-%%%%%%");
    fs::create_directories(dir);
    int status = 0;
    try {
        emulator::EmulatorConfig config;
        config.tls = emulator::TlsFiles{certFile("server.pem"), certFile("server-key.pem"), certFile("ca.pem"), true};
        config.dataDirectory = (dir / "cloud").string();
        emulator::CloudEmulator cloud(config);

        fs::ofstream(dir / "log.properties") << "log4cplus.rootLogger=WARN, err\n"
                                                "log4cplus.appender.err=log4cplus::ConsoleAppender\n"
                                                "log4cplus.appender.err.logToStdErr=true\n";
        ::setenv("TAVIX_LOG_CONFIG", (dir / "log.properties").c_str(), 1);
        fs::ofstream(dir / "controller.conf")
            << "locator_url = " << cloud.locatorUrl() << "\nauth_url = " << cloud.tokenUrl()
            << "\ncommon_name = queue-bench\nca_file = " << certFile("ca.pem")
            << "\nclient_cert_file = " << certFile("client.pem") << "\n";
        ::setenv("TAVIX_CONTROLLER_CONFIG", (dir / "controller.conf").c_str(), 1);

        fmt::print("upload queue against the emulator in this process, HTTPS with a client certificate; spool and "
                   "files on the same file system\n");
        auto const runs = [&](char section) { return options.sections.find(section) != std::string::npos; };
        if (runs('1')) enqueueLatency(options, dir);
        if (runs('2')) smallFilesDrain(options, dir, cloud);
        if (runs('3')) cappedDrain(options, dir, cloud);
    } catch (std::exception const& e) {
        fmt::print(stderr, "queue_bench: {}\n", e.what());
        status = 1;
    }
    boost::system::error_code ignored;
    fs::remove_all(dir, ignored);
    return status;
}
