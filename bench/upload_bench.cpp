// Uploads of files of several sizes by `storage::FileUploader` (the whole chain) and by a bare
// libcurl program with the uploader's options, in the same run, to two targets on 127.0.0.1
// over HTTP: the emulator (the real thing: MD5 check, body on disk) and a bare sink that reads
// and discards, so that the target is never what is measured. Each sender runs in a process of
// its own, so that its peak memory (wait4's ru_maxrss) is its own. The files are real data in a
// temporary directory, read once before timing so that both senders read them from the cache.
// The MD5 pass is timed here, in the benchmark, on the same file.
//
// Prints each sender's transfer throughput and peak memory, the uploader's whole chain split
// into the MD5 pass, the REST steps and the transfer, and the ratios against the targets.
//
//   upload_bench [sizes=1M,100M,1G] [rounds=1]
//
// Sizes take K, M and G (powers of 1000); MB is 10^6 bytes throughout. With several rounds
// each time is the best of its rounds and each peak memory the highest.
#include <bench/upload/BareSink.h>
#include <bench/upload/SenderProcess.h>

#include <restclient/storage/StoreClient.h>
#include <tavix/crypto/FileHash.h>
#include <tools/emulator/CloudEmulator.h>

#include <boost/asio/io_context.hpp>
#include <boost/filesystem/fstream.hpp>
#include <boost/filesystem/operations.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

namespace fs = boost::filesystem;
using namespace tavix;
using bench::SenderReport;

constexpr char const* kAppKey = "upload-bench";
constexpr double kMinTransferRatio = 0.97;
constexpr double kMaxChainRatio = 1.1;
constexpr double kMaxPeakMegabytes = 12.0;
// "Flat": from the smallest file to the largest the peak grows by no more than this.
constexpr double kFlatMegabytes = 1.0;

enum class Target { emulator, sink };
char const* name(Target target) { return target == Target::emulator ? "emulator" : "sink"; }

struct Sender {
    double transfer = 0;       // seconds, best of the rounds
    double peak = 0;           // MB, highest of the rounds
    double own = 0;            // MB, the peak less the shared libraries' pages, highest of the rounds
    double chain = 0;          // the uploader's, seconds
    double beforeTransfer = 0; // the uploader's, seconds
};

struct Row {
    Row(std::uint64_t size, Target target) : size(size), target(target) {}

    std::uint64_t size;
    Target target;
    double md5 = 0; // seconds
    Sender uploader;
    Sender bare;
};

std::string sizeText(std::uint64_t bytes)
{
    if (bytes >= 1000000000 && bytes % 1000000000 == 0) return fmt::format("{} GB", bytes / 1000000000);
    if (bytes >= 1000000 && bytes % 1000000 == 0) return fmt::format("{} MB", bytes / 1000000);
    if (bytes >= 1000 && bytes % 1000 == 0) return fmt::format("{} KB", bytes / 1000);
    return fmt::format("{} B", bytes);
}

std::vector<std::uint64_t> parseSizes(std::string const& text)
{
    std::vector<std::uint64_t> sizes;
    std::size_t begin = 0;
    while (begin <= text.size()) {
        std::size_t const end = std::min(text.find(',', begin), text.size());
        std::string const item = text.substr(begin, end - begin);
        char* unit = nullptr;
        std::uint64_t value = std::strtoull(item.c_str(), &unit, 10);
        std::string const suffix(unit);
        if (suffix == "K" || suffix == "k") value *= 1000;
        else if (suffix == "M") value *= 1000000;
        else if (suffix == "G") value *= 1000000000;
        else if (!suffix.empty()) value = 0;
        if (value == 0) throw std::invalid_argument("bad size '" + item + "'");
        sizes.push_back(value);
        begin = end + 1;
    }
    return sizes;
}

// Real, incompressible bytes: a sparse or repetitive file would flatter the disk and the cache.
void writeFile(fs::path const& path, std::uint64_t size)
{
    std::vector<std::uint64_t> block(1 << 17);
    std::uint64_t state = size;
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) throw std::runtime_error("cannot create " + path.string());
    for (std::uint64_t left = size; left > 0;) {
        for (std::uint64_t& word : block) { // splitmix64
            std::uint64_t z = (state += 0x9e3779b97f4a7c15ULL);
            z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
            z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
            word = z ^ (z >> 31);
        }
        std::size_t const chunk = static_cast<std::size_t>(std::min<std::uint64_t>(left, block.size() * 8));
        if (std::fwrite(block.data(), 1, chunk, file) != chunk) break;
        left -= chunk;
    }
    if (std::fclose(file) != 0 || fs::file_size(path) != size)
        throw std::runtime_error("cannot write " + path.string());
}

std::string md5Of(fs::path const& file)
{
    boost::system::error_code ec;
    std::string md5 = crypto::computeFileHash(file.string(), "md5", ec, crypto::HexLower);
    if (ec) throw std::runtime_error("MD5 of " + file.string() + ": " + ec.message());
    return md5;
}

double seconds(std::chrono::steady_clock::duration span) { return std::chrono::duration<double>(span).count(); }

// Creates the object with the file's checksum, as the uploader's step 4 does, and returns its
// pre-signed upload URL.
std::string uploadUrl(emulator::CloudEmulator const& cloud, std::string const& objectName, std::string const& md5)
{
    boost::asio::io_context io;
    std::string url;
    std::string failure = "no answer";
    restclient::storage::StoreClient client(
        io,
        [&](restclient::storage::StoreResponse const& answer, restclient::veltrun::TavixErrorResponse error,
            unsigned int status, boost::system::error_code const& ec) {
            if (!ec && status == 200) url = answer.url.value;
            failure = fmt::format("status {} {} {}", status, ec.message(), error.message.value);
        },
        "127.0.0.1", cloud.port(), emulator::kDefaultToken, cloud.config().accountId, false, "/storage/v1/accounts");
    restclient::storage::StoreRequest request;
    request.name.value = objectName;
    request.metadata.add("_md5checksum", md5);
    if (boost::system::error_code const ec = client.store(request)) failure = ec.message();
    else io.run();
    if (url.empty()) throw std::runtime_error("the emulator gave no upload URL: " + failure);
    return url;
}

// The emulator's answer to the uploader's store request, pointing the transfer at the sink.
std::string storeAnswerFor(bench::BareSink const& sink, emulator::CloudEmulator const& cloud)
{
    return fmt::format(R"({{"href": "{}/objects/sink", "expires": "2100-01-01T00:00:00+00:00", "url": "{}"}})",
                       cloud.storageUrl(), sink.url());
}

bool storedWhole(emulator::CloudEmulator const& cloud, std::string const& objectName, std::uint64_t size)
{
    std::vector<emulator::StoredObject> const objects = cloud.objects();
    auto const last = std::find_if(objects.rbegin(), objects.rend(),
                                   [&](emulator::StoredObject const& object) { return object.name == objectName; });
    return last != objects.rend() && last->uploaded && last->contentLength == size;
}

class Bench {
public:
    Bench(fs::path directory, unsigned rounds)
        : m_directory(std::move(directory)), m_rounds(rounds),
          m_programs(fs::read_symlink("/proc/self/exe").parent_path()), m_cloud(emulatorConfig(m_directory))
    {
        fs::ofstream(m_directory / "controller.conf") << "locator_url = " << m_cloud.locatorUrl() << "\n"
                                                      << "auth_url = " << m_cloud.tokenUrl() << "\n"
                                                      << "common_name = upload-bench\n";
        // The uploader's log: warnings and errors only, on stderr, away from the table.
        fs::ofstream(m_directory / "log.properties")
            << "log4cplus.rootLogger=WARN, err\n"
               "log4cplus.appender.err=log4cplus::ConsoleAppender\n"
               "log4cplus.appender.err.logToStdErr=true\n"
               "log4cplus.appender.err.layout=log4cplus::PatternLayout\n"
               "log4cplus.appender.err.layout.ConversionPattern=upload_send_uploader: %-5p %m%n\n";
        setenv("TAVIX_CONTROLLER_CONFIG", (m_directory / "controller.conf").c_str(), 1);
        setenv("TAVIX_LOG_CONFIG", (m_directory / "log.properties").c_str(), 1);
    }

    std::vector<Row> measure(std::uint64_t size)
    {
        fs::path const file = m_directory / fmt::format("file-{}", size);
        writeFile(file, size);
        // Read once before anything is timed: the file is in the page cache for every sender
        // alike, and the digest is loaded.
        md5Of(file);
        std::vector<Row> rows{{size, Target::emulator}, {size, Target::sink}};
        for (unsigned round = 0; round < m_rounds; ++round) {
            auto const start = std::chrono::steady_clock::now();
            std::string const md5 = md5Of(file);
            double const md5Seconds = seconds(std::chrono::steady_clock::now() - start);
            for (Row& row : rows) {
                row.md5 = round == 0 ? md5Seconds : std::min(row.md5, md5Seconds);
                runUploader(row, file, round);
                runBare(row, file, md5, round);
            }
        }
        fs::remove(file);
        return rows;
    }

private:
    static emulator::EmulatorConfig emulatorConfig(fs::path const& directory)
    {
        emulator::EmulatorConfig config;
        config.dataDirectory = (directory / "emulator").string();
        return config;
    }

    static void keep(Sender& best, SenderReport const& report, bool first)
    {
        auto lowest = [first](double& kept, double value) { kept = first ? value : std::min(kept, value); };
        lowest(best.transfer, report.number("transfer"));
        lowest(best.chain, report.number("chain"));
        lowest(best.beforeTransfer, report.number("before_transfer"));
        best.peak = std::max(best.peak, report.peakMegabytes);
        best.own = std::max(best.own, report.peakMegabytes - report.number("shared_kb") * 1024.0 / 1e6);
    }

    void runUploader(Row& row, fs::path const& file, unsigned round)
    {
        if (row.target == Target::sink) {
            emulator::ScriptedReply reply;
            reply.body = storeAnswerFor(m_sink, m_cloud);
            reply.targetContains = "/files";
            m_cloud.scriptReply(reply);
        }
        SenderReport const report =
            run({(m_programs / "upload_send_uploader").string(), file.string(), kAppKey, reportPath().string()});
        // A scripted answer left unused by a failed chain must not reach the next store request.
        m_cloud.reset();
        if (report.exitCode != 0 || report.text("error") != "0")
            throw std::runtime_error(fmt::format("the uploader failed ({} to the {}): exit {}, error {} {}",
                                                 sizeText(row.size), name(row.target), report.exitCode,
                                                 report.text("error"), report.text("message")));
        checkDelivered(row, "upload-bench/" + file.filename().string(), "uploader");
        keep(row.uploader, report, round == 0);
    }

    void runBare(Row& row, fs::path const& file, std::string const& md5, unsigned round)
    {
        std::string const objectName = "upload-bench-bare/" + file.filename().string();
        std::string const url = row.target == Target::sink ? m_sink.url() : uploadUrl(m_cloud, objectName, md5);
        SenderReport const report =
            run({(m_programs / "upload_send_curl").string(), url, file.string(), reportPath().string()});
        m_cloud.reset();
        if (report.exitCode != 0)
            throw std::runtime_error(fmt::format("the bare sender failed ({} to the {}): exit {}, status {}, curl "
                                                 "error {}",
                                                 sizeText(row.size), name(row.target), report.exitCode,
                                                 report.text("status"), report.text("curl")));
        checkDelivered(row, objectName, "bare sender");
        keep(row.bare, report, round == 0);
    }

    void checkDelivered(Row const& row, std::string const& objectName, char const* sender)
    {
        bool const whole = row.target == Target::sink ? m_sink.takeBodyBytes() == row.size
                                                      : storedWhole(m_cloud, objectName, row.size);
        if (!whole)
            throw std::runtime_error(
                fmt::format("the {}'s {} bytes did not arrive whole at the {}", sender, row.size, name(row.target)));
    }

    fs::path reportPath() const { return m_directory / "sender.report"; }

    // Runs one sender once the disk has written back what earlier runs left in the page cache:
    // that writeback would otherwise take CPU from whichever sender runs next.
    SenderReport run(std::vector<std::string> const& arguments) const
    {
        ::sync();
        return bench::runSender(m_programs / "upload_launch", arguments, reportPath());
    }

    fs::path const m_directory;
    unsigned const m_rounds;
    fs::path const m_programs;
    bench::BareSink m_sink;
    emulator::CloudEmulator m_cloud;
};

double throughput(std::uint64_t size, double seconds) { return seconds > 0 ? size / 1e6 / seconds : 0.0; }

char const* verdict(bool met) { return met ? "ok" : "MISSED"; }

void printTables(std::vector<Row> const& rows)
{
    fmt::print("\nTransfer throughput; peak RSS (wait4's ru_maxrss) and, in brackets, that less the shared "
               "libraries' pages (RssFile + RssShmem when done)\n");
    fmt::print("{:<8} {:<9} {:>13} {:>10} {:>7}   {:>22} {:>18}\n", "size", "target", "uploader MB/s", "bare MB/s",
               "ratio", "uploader peak RSS MB", "bare peak RSS MB");
    for (Row const& row : rows) {
        double const uploader = throughput(row.size, row.uploader.transfer);
        double const bare = throughput(row.size, row.bare.transfer);
        fmt::print("{:<8} {:<9} {:>13.1f} {:>10.1f} {:>7.3f}   {:>14.2f} ({:>5.2f}) {:>10.2f} ({:>5.2f})\n",
                   sizeText(row.size), name(row.target), uploader, bare, uploader / bare, row.uploader.peak,
                   row.uploader.own, row.bare.peak, row.bare.own);
    }

    fmt::print("\nThe uploader's whole chain, seconds (REST steps: start to step 5 less the MD5 pass; the worker's "
               "start and the process's first uses of OpenSSL and the log are in it)\n");
    fmt::print("{:<8} {:<9} {:>9} {:>9} {:>10} {:>9}   {:>16} {:>7}\n", "size", "target", "chain", "MD5 pass",
               "REST steps", "transfer", "MD5 + bare xfer", "ratio");
    for (Row const& row : rows) {
        double const floor = row.md5 + row.bare.transfer;
        fmt::print("{:<8} {:<9} {:>9.3f} {:>9.3f} {:>10.3f} {:>9.3f}   {:>16.3f} {:>7.3f}\n", sizeText(row.size),
                   name(row.target), row.uploader.chain, row.md5, row.uploader.beforeTransfer - row.md5,
                   row.uploader.transfer, floor, row.uploader.chain / floor);
    }
}

void printTargets(std::vector<Row> const& rows)
{
    std::string transfer, chain, peaks;
    bool transferMet = true, chainMet = true;
    double highest = 0;
    std::map<std::uint64_t, double> peakBySize; // the uploader's, over both targets
    for (Row const& row : rows) {
        highest = std::max(highest, row.uploader.peak);
        peakBySize[row.size] = std::max(peakBySize[row.size], row.uploader.peak);
        if (row.target != Target::sink) continue;
        double const ratio = row.bare.transfer / row.uploader.transfer;
        double const chainRatio = row.uploader.chain / (row.md5 + row.bare.transfer);
        transferMet = transferMet && ratio >= kMinTransferRatio;
        chainMet = chainMet && chainRatio <= kMaxChainRatio;
        transfer += fmt::format("  {} {:.3f}", sizeText(row.size), ratio);
        chain += fmt::format("  {} {:.3f}", sizeText(row.size), chainRatio);
    }
    for (auto const& [size, peak] : peakBySize) peaks += fmt::format("  {} {:.2f}", sizeText(size), peak);
    double const growth = peakBySize.empty() ? 0 : peakBySize.rbegin()->second - peakBySize.begin()->second;

    fmt::print("\nTargets (ratios to the sink)\n");
    fmt::print("  uploader's transfer >= {} x the bare program's:{}  {}\n", kMinTransferRatio, transfer,
               verdict(transferMet));
    fmt::print("  uploader's chain <= {} x (MD5 pass + bare transfer):{}  {}\n", kMaxChainRatio, chain,
               verdict(chainMet));
    fmt::print("  uploader's peak memory <= {} MB: highest {:.2f} MB  {}\n", kMaxPeakMegabytes, highest,
               verdict(highest <= kMaxPeakMegabytes));
    fmt::print("  flat in the file's size (grows <= {} MB from the smallest file to the largest):{}  {}\n",
               kFlatMegabytes, peaks, verdict(growth <= kFlatMegabytes));
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::uint64_t> sizes;
    unsigned rounds = 1;
    try {
        sizes = parseSizes(argc > 1 ? argv[1] : "1M,100M,1G");
        rounds = argc > 2 ? static_cast<unsigned>(std::max(1, std::atoi(argv[2]))) : 1;
    } catch (std::exception const& e) {
        std::fprintf(stderr, "%s\nusage: %s [sizes=1M,100M,1G] [rounds=1]\n", e.what(), argv[0]);
        return 2;
    }

    fs::path const directory = fs::temp_directory_path() / fs::unique_path("upload-bench-%%%%-%%%%");
    fs::create_directories(directory);
    int status = 0;
    try {
        std::string sizeList;
        for (std::uint64_t size : sizes) sizeList += (sizeList.empty() ? "" : ", ") + sizeText(size);
        fmt::print("Upload of files of {} (MB = 10^6 bytes), {} round(s), files in {}\n", sizeList, rounds,
                   directory.string());
        fmt::print("Senders, each in a process of its own: uploader = storage::FileUploader's whole chain; "
                   "bare = libcurl alone with the uploader's options\n");
        fmt::print("Targets on 127.0.0.1 over HTTP: emulator = the cloud emulator (MD5 check, body to disk); "
                   "sink = a bare HTTP sink that reads and discards\n");
        std::fflush(stdout);
        std::vector<Row> rows;
        {
            Bench bench(directory, rounds);
            for (std::uint64_t size : sizes) {
                for (Row const& row : bench.measure(size)) rows.push_back(row);
            }
        }
        printTables(rows);
        printTargets(rows);
    } catch (std::exception const& e) {
        std::fprintf(stderr, "upload_bench: %s\n", e.what());
        status = 1;
    }
    boost::system::error_code ignored;
    fs::remove_all(directory, ignored);
    return status;
}
