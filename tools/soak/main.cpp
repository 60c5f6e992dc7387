// restclient-soak: many uploads at once through the library's uploader, with a token renewer
// watching, against the local cloud emulator injecting faults at random; then the check that
// nothing was lost and that the process kept its threads, descriptors and memory. With --queue,
// files go through the durable upload queue instead, its runner killed at random (QueueSoak.h).
//
//   restclient-soak [uploads] [--threads N] [--seed S] [--faults TEXT] ...   (--help lists all)
//   restclient-soak --queue [files] [--concurrency N] [--seed S] ...
//
// Exit status: 0 every check held, 1 one did not, 2 bad usage or the soak could not run.
#include <tools/soak/EmulatorProcess.h>
#include <tools/soak/ProcessFigures.h>
#include <tools/soak/QueueRunner.h>
#include <tools/soak/QueueSoak.h>
#include <tools/soak/Report.h>
#include <tools/soak/UploadRun.h>

#include <restclient/authentication/AuthRenew.h>

#include <boost/filesystem/operations.hpp>

#include <CLI/CLI.hpp>
#include <curl/curl.h>
#include <fmt/format.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <random>
#include <thread>

namespace fs = boost::filesystem;
using namespace tavix::soak;

namespace {

struct Options {
    int uploads = 1000;
    int threads = 16;
    std::uint64_t seed = 0;
    // A fault on the transfer costs the uploader a 10-second wait before its next attempt, an
    // expired URL two of them; these rates keep the default run within a few minutes.
    std::string faults = "drop=0.03,stall=0.05,stall-ms=2000,5xx=0.03,401=0.05,expired-url=0.02";
    std::uint64_t maxSize = 8'000'000;
    int tokenLifetime = 30;
    // What the resident size may grow by: the allocator's pools of 30-odd threads settle at
    // slightly different sizes from run to run. The heap in use is held tighter.
    double memoryMarginMb = 8;
    double heapMarginMb = 1;
    std::string workDirectory;
    bool keep = false;
    std::string emulator;
    bool queue = false;
    unsigned concurrency = 8;
    std::string queueRunner; // the spool: this process is the queue soak's runner
    std::string queueCa;
};

// The queue soak's own defaults: files of up to a few MB, and faults that include the one that
// makes duplicates. A fault on the transfer costs a 10-second wait before the uploader's next
// attempt. The Locator is spared: a process whose lookup fails asks again only after 5 minutes,
// and the queue holds every entry that fails meanwhile until then, so that one such fault would
// make the drain time that wait (--faults without "spare" shows it).
constexpr std::uint64_t kQueueMaxSize = 4'000'000;
// Tokens that outlive the run: the Account service's address is looked up again when the token
// expires, and a lookup while the emulator restarts would hold the queue likewise.
constexpr int kQueueTokenLifetime = 600;
constexpr char const* kQueueFaults =
    "drop=0.02,stall=0.03,stall-ms=1000,5xx=0.02,401=0.03,expired-url=0.01,drop-after-body=0.05,spare=locations";

// log4cplus properties that log DEBUG and up to `log`, appending: the queue's runner starts many times.
fs::path writeLogProperties(fs::path const& properties, fs::path const& log)
{
    std::ofstream(properties.string())
        << "log4cplus.rootLogger=DEBUG, file\n"
           "log4cplus.appender.file=log4cplus::FileAppender\n"
           "log4cplus.appender.file.Append=true\n"
           "log4cplus.appender.file.File="
        << log.string()
        << "\n"
           "log4cplus.appender.file.layout=log4cplus::PatternLayout\n"
           "log4cplus.appender.file.layout.ConversionPattern=%D{%H:%M:%S.%q} %-5p [%T] %m%n\n";
    return properties;
}

// The library logs to a file of the work directory, DEBUG and up, unless TAVIX_LOG_CONFIG says otherwise.
void logToFile(fs::path const& work)
{
    if (std::getenv("TAVIX_LOG_CONFIG")) return;
    setenv("TAVIX_LOG_CONFIG", writeLogProperties(work / "log4cplus.properties", work / "soak.log").c_str(), 1);
}

fs::path emulatorProgram(Options const& options)
{
    return options.emulator.empty() ? fs::read_symlink("/proc/self/exe").parent_path() / "restclient-emulator"
                                    : fs::path(options.emulator);
}

fs::path workDirectory(Options const& options)
{
    return options.workDirectory.empty() ? fs::temp_directory_path() / fs::unique_path("restclient-soak-%%%%-%%%%")
                                         : fs::path(options.workDirectory);
}

int queueSoak(Options const& options)
{
    QueueSoakOptions queue;
    queue.files = options.uploads;
    queue.seed = options.seed;
    queue.concurrency = options.concurrency;
    queue.faults = options.faults;
    queue.maxSize = options.maxSize;
    queue.tokenLifetime = options.tokenLifetime;
    queue.memoryMarginMb = options.memoryMarginMb;
    queue.work = workDirectory(options);
    queue.self = fs::read_symlink("/proc/self/exe");
    queue.emulator = emulatorProgram(options);
    QueueSoakPlan const plan = queueSoakPlan(queue.files);
    fs::create_directories(queue.work);
    std::cout << fmt::format("restclient-soak --queue: {} files, {} at a time, seed {} (give --seed {} to repeat it)\n",
                             queue.files, queue.concurrency, queue.seed, queue.seed)
              << fmt::format("  faults per request: {}\n", queue.faults)
              << fmt::format("  files up to {} bytes; tokens live {} s; {} sent under {} runner kills and {} emulator "
                             "restarts\n",
                             queue.maxSize, queue.tokenLifetime, plan.underKills, plan.kills, plan.emulatorRestarts)
              << fmt::format("  work directory {}\n", queue.work.string()) << std::flush;
    // The queue's runner logs to a file of its own, unless TAVIX_LOG_CONFIG says otherwise.
    if (!std::getenv("TAVIX_LOG_CONFIG"))
        queue.runnerLogConfig =
            writeLogProperties(queue.work / "runner-log4cplus.properties", queue.work / "runner.log").string();
    logToFile(queue.work);
    bool const held = runQueueSoak(queue, std::cout);
    if (held && !options.keep) {
        fs::remove_all(queue.work);
    } else {
        std::cout << "kept " << queue.work.string() << " (runner.log and runner.out are the runner's)\n";
    }
    return held ? 0 : 1;
}

// The figures once the process has settled: what finished work leaves behind may take a moment
// to go (a thread on its way out, say); waits up to 10 s for the start's counts.
ProcessFigures settledFigures(ProcessFigures const& start)
{
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    ProcessFigures figures = processFigures();
    while ((figures.threads > start.threads || figures.openFiles > start.openFiles)
           && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        figures = processFigures();
    }
    return figures;
}

int soak(Options const& options)
{
    fs::path const work = workDirectory(options);
    fs::create_directories(work / "files");
    std::string const faults =
        (options.faults.empty() ? "" : options.faults + ",") + fmt::format("seed={}", options.seed);
    std::cout << fmt::format("restclient-soak: {} uploads, {} at a time, seed {} (give --seed {} to repeat it)\n",
                             options.uploads, options.threads, options.seed, options.seed)
              << fmt::format("  faults per request: {}\n", faults)
              << fmt::format("  files up to {} bytes; tokens live {} s; work directory {}\n", options.maxSize,
                             options.tokenLifetime, work.string())
              << std::flush;
    logToFile(work);
    auto const began = std::chrono::steady_clock::now();

    EmulatorProcess emulator(emulatorProgram(options), work, std::chrono::seconds(options.tokenLifetime));
    setenv("TAVIX_CONTROLLER_CONFIG", emulator.settingsFile().c_str(), 1);

    std::string const appKey = "soak-app";
    tavix::restclient::authentication::AuthRenew renewer(appKey);
    UploadPlan plan;
    plan.files = work / "files";
    plan.seed = options.seed;
    plan.maxSize = options.maxSize;
    plan.appKey = appKey;
    plan.caFile = emulator.caFile();
    plan.threads = options.threads;

    // A first round without faults: the process reaches its working size (libraries, pools,
    // one thread of each kind), and the Account service's URL is cached, as a device would
    // have it before trouble starts; a failed first lookup would fail every upload for 5 minutes.
    int const warmUp = std::min(options.threads, options.uploads);
    std::cout << fmt::format("warm-up: {} uploads without faults\n", warmUp) << std::flush;
    std::vector<UploadOutcome> outcomes(std::size_t(options.uploads));
    runUploads(plan, 0, warmUp, outcomes, std::cout);
    ProcessFigures const start = processFigures();

    emulator.setFaults(faults);
    std::cout << fmt::format("with faults: {} uploads\n", options.uploads - warmUp) << std::flush;
    runUploads(plan, warmUp, options.uploads - warmUp, outcomes, std::cout);
    ProcessFigures const end = settledFigures(start);
    double const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();

    SoakSummary summary;
    summary.seed = options.seed;
    summary.threads = options.threads;
    summary.seconds = seconds;
    summary.outcomes = &outcomes;
    summary.faultReport = emulator.faultReport();
    if (!emulator.stop()) summary.emulatorFailure = "it did not exit cleanly: see " + (work / "emulator.out").string();
    summary.verification = verify(outcomes, options.seed, emulator.dataDirectory());
    summary.start = start;
    summary.end = end;
    summary.memoryMarginMb = options.memoryMarginMb;
    summary.heapMarginMb = options.heapMarginMb;
    bool const held = printReport(summary, std::cout);

    if (held && !options.keep) {
        fs::remove_all(work);
    } else {
        std::cout << "kept " << work.string() << " (the library's log is soak.log)\n";
    }
    return held ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    // Before any thread: the uploaders and the control calls use libcurl.
    curl_global_init(CURL_GLOBAL_DEFAULT);
    Options options;
    options.seed = std::random_device()();
    CLI::App app{"Many uploads at once through the library's uploader against the local cloud emulator, which "
                 "injects faults at random; then checks that nothing was lost and that threads, open files and "
                 "memory stayed flat.",
                 "restclient-soak"};
    app.add_option("uploads", options.uploads, "how many uploads (with --queue: files)")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_option("--threads", options.threads, "uploads at a time")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_option("--seed", options.seed, "seed of the files' sizes and contents and of the faults (default: random)");
    app.add_option("--faults", options.faults, "the emulator's random faults (the seed is added)")
        ->capture_default_str();
    app.add_option("--max-size", options.maxSize, "largest file, in bytes")->capture_default_str();
    app.add_option("--token-lifetime", options.tokenLifetime, "seconds the emulator's tokens live")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_option("--memory-margin", options.memoryMarginMb, "MB the resident memory may grow by")
        ->capture_default_str();
    app.add_option("--heap-margin", options.heapMarginMb, "MB the heap in use may grow by")->capture_default_str();
    app.add_option("--work-dir", options.workDirectory,
                   "where files, the emulator's data and the log go "
                   "(default: a temporary directory, removed when all is well)");
    app.add_flag("--keep", options.keep, "keep the work directory");
    app.add_option("--emulator", options.emulator, "the restclient-emulator program (default: beside this one)");
    app.add_flag("--queue", options.queue,
                 fmt::format("send the files through the upload queue, its runner killed at random (files up to {} "
                             "bytes, tokens that live {} s and the faults {} unless told)",
                             kQueueMaxSize, kQueueTokenLifetime, kQueueFaults));
    app.add_option("--concurrency", options.concurrency, "with --queue: uploads at a time")
        ->capture_default_str()
        ->check(CLI::Range(1, 64));
    app.add_option("--queue-runner", options.queueRunner)->group("");
    app.add_option("--queue-ca", options.queueCa)->group("");
    try {
        app.parse(argc, argv);
    } catch (CLI::ParseError const& e) {
        return app.exit(e) == 0 ? 0 : 2;
    }
    if (!options.queueRunner.empty())
        return runQueueRunner({options.queueRunner, options.queueCa, options.concurrency});
    if (options.queue) {
        if (app.count("--max-size") == 0) options.maxSize = kQueueMaxSize;
        if (app.count("--faults") == 0) options.faults = kQueueFaults;
        if (app.count("--token-lifetime") == 0) options.tokenLifetime = kQueueTokenLifetime;
        if (options.uploads < 10) {
            std::cerr << "restclient-soak: --queue needs 10 files or more\n";
            return 2;
        }
    }
    try {
        if (options.queue) return queueSoak(options);
        return soak(options);
    } catch (std::exception const& e) {
        std::cerr << "restclient-soak: " << e.what() << "\n";
        return 2;
    }
}
