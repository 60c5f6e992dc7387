#include <tools/soak/QueueSoak.h>

#include <tools/soak/EmulatorProcess.h>
#include <tools/soak/QueueReport.h>
#include <tools/soak/QueueRunner.h>
#include <tools/soak/UploadRun.h>

#include <boost/filesystem/operations.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <random>
#include <stdexcept>
#include <thread>

namespace fs = boost::filesystem;

namespace tavix::soak {
namespace {

using Clock = std::chrono::steady_clock;
using restclient::storage::HoldMode;
using restclient::storage::QueueCounts;
using restclient::storage::QueueError;
using restclient::storage::UploadQueue;

// A runner this long after its start has recovered its spool and is sending.
constexpr std::chrono::milliseconds kSettled{500};
// By then a runner has checked its entries in doubt and found the Account service.
constexpr std::chrono::seconds kLookupDone{2};

double secondsSince(Clock::time_point began) { return std::chrono::duration<double>(Clock::now() - began).count(); }

// Writes a file, hands it to the queue as its record says and deletes it: the queue holds its own.
void enqueueOne(UploadQueue& queue, QueueSoakOptions const& options, QueuedFile& record)
{
    fs::path const directory = options.work / "files";
    record.file = writeSoakFile(directory, options.seed, record.index, options.maxSize);
    fs::path const path = soakFilePath(directory, record.index);
    boost::system::error_code ec;
    std::string detail;
    std::map<std::string, std::string> const metadata{{"soakSeed", std::to_string(options.seed)}};
    for (int attempt = 1; attempt <= 5 && record.id == 0; ++attempt) {
        record.id =
            queue.enqueue(path, uploadName(options.seed, record.index), "soak", metadata, record.hold, ec, &detail);
        if (ec != QueueError::journalBusy) break;
    }
    if (record.id == 0) record.error = ec.message() + (detail.empty() ? "" : ": " + detail);
    fs::remove(path);
}

// What the runners' log says they did about entries in doubt: how many a start found left
// sending, and how many of those the Storage service already held. Nullopt without the log.
std::optional<std::pair<long, long>> inDoubtFigures(fs::path const& log)
{
    std::ifstream in(log.string());
    if (!in) return std::nullopt;
    std::pair<long, long> figures{0, 0};
    std::string const recovered = " entries were being sent when their runner stopped";
    for (std::string line; std::getline(in, line);) {
        if (auto const at = line.find(recovered); at != std::string::npos) {
            auto const start = line.rfind(' ', at - 1) + 1;
            figures.first += std::strtol(line.c_str() + start, nullptr, 10);
        }
        if (line.find("is already stored: not sent again") != std::string::npos) ++figures.second;
    }
    return figures;
}

class QueueSoak {
public:
    QueueSoak(QueueSoakOptions const& options, std::ostream& out)
        : m_options(options), m_plan(queueSoakPlan(options.files)), m_out(out), m_moments(options.seed + 1),
          m_emulator(options.emulator, options.work, std::chrono::seconds(options.tokenLifetime))
    {
        fs::create_directories(options.work / "files");
        m_emulator.setFaults(faults(0));
        setenv("TAVIX_CONTROLLER_CONFIG", m_emulator.settingsFile().c_str(), 1);
        QueueSetup const setup{options.work / "spool", m_emulator.caFile(), options.concurrency};
        boost::system::error_code ec;
        std::string detail;
        m_queue = UploadQueue::open(soakQueueOptions(setup), ec, &detail);
        if (!m_queue) throw std::runtime_error("the spool does not open: " + ec.message() + " (" + detail + ")");
        m_runner.emplace(options.self, setup, options.work / "runner.out", options.runnerLogConfig);

        std::mt19937_64 holds(options.seed + 2);
        m_files.resize(std::size_t(options.files));
        for (int i = 0; i < options.files; ++i) {
            m_files[std::size_t(i)].index = i;
            m_files[std::size_t(i)].hold = holds() % 2 ? HoldMode::link : HoldMode::copy;
        }
    }

    QueueSummary run()
    {
        auto const began = Clock::now();
        m_summary.spoolBytesStart = m_queue->counts().spoolBytes;
        m_summary.heldFilesStart = heldFileBytes();
        underKills();
        steady();
        m_summary.faultReport = m_emulator.faultReport();
        m_summary.counts = m_queue->counts();
        m_summary.leftInJournal = m_queue->list().size();
        m_summary.heldFilesEnd = heldFileBytes();
        m_queue.reset();
        if (!m_emulator.stop())
            m_summary.emulatorFailure = "it did not exit cleanly: see " + (m_options.work / "emulator.out").string();
        m_summary.verification = verifyQueue(m_files, m_options.seed, m_emulator.dataDirectory());
        if (!m_options.runnerLogConfig.empty()) m_summary.inDoubt = inDoubtFigures(m_options.work / "runner.log");
        m_summary.seed = m_options.seed;
        m_summary.concurrency = m_options.concurrency;
        m_summary.files = &m_files;
        m_summary.underKills = m_plan.underKills;
        m_summary.killsPlanned = m_plan.kills;
        m_summary.memoryMarginMb = m_options.memoryMarginMb;
        m_summary.seconds = secondsSince(began);
        return m_summary;
    }

private:
    // The faults of the emulator's `run`-th start: each run draws from a seed of its own.
    std::string faults(int run) const
    {
        return (m_options.faults.empty() ? "" : m_options.faults + ",") + fmt::format("seed={}", m_options.seed + run);
    }

    // Enqueues files first .. first + count - 1 on a thread of its own, one every `interval`.
    std::future<void> produce(int first, int count, Clock::duration interval = {})
    {
        return std::async(std::launch::async, [this, first, count, interval] {
            auto const began = Clock::now();
            for (int i = 0; i < count; ++i) {
                std::this_thread::sleep_until(began + i * interval);
                enqueueOne(*m_queue, m_options, m_files[std::size_t(first + i)]);
            }
        });
    }

    // The bytes of the files the spool holds (its files/ directory, beside the journal).
    std::uint64_t heldFileBytes() const
    {
        std::uint64_t bytes = 0;
        fs::path const held = m_options.work / "spool" / "files";
        if (!fs::exists(held)) return 0;
        for (fs::recursive_directory_iterator it(held), end; it != end; ++it)
            if (fs::is_regular_file(it->status())) bytes += fs::file_size(it->path());
        return bytes;
    }

    // The runner's figures once per life, when it has settled.
    void sampleRunner()
    {
        if (m_sampled || m_runner->age() < kSettled) return;
        m_summary.afterRestarts.push_back(processFigures(m_runner->pid()));
        m_sampled = true;
    }

    void restartRunner()
    {
        sampleRunner();
        m_runner->kill();
        ++m_summary.kills;
        m_runner->start();
        m_sampled = false;
    }

    // Polls the queue, calling `tick` with its counts, until the producer is done, no entry is
    // pending or sending and `tick` has nothing more to do (returns false); past the deadline,
    // records the problem and gives up.
    template <typename Tick>
    void drain(std::future<void>& producer, char const* stretch, Tick tick)
    {
        auto const deadline = Clock::now() + m_options.deadline;
        for (;;) {
            QueueCounts const counts = m_queue->counts();
            bool const produced = producer.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
            bool const moreToDo = tick(counts);
            if (produced && counts.pending == 0 && counts.sending == 0 && !moreToDo) break;
            if (Clock::now() > deadline) {
                m_summary.problems.push_back(fmt::format("{}: {} pending and {} sending after {} minutes", stretch,
                                                         counts.pending, counts.sending, m_options.deadline.count()));
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        producer.get();
    }

    void underKills()
    {
        int const files = m_plan.underKills;
        // The runner lives 0.5 to 3 s, then is killed at whatever it is doing; the files come
        // evenly over the time the kills take, so that each kill finds work under way.
        std::uniform_int_distribution<int> lifeMs(500, 3000);
        auto const span = std::chrono::milliseconds(m_plan.kills * 1750);
        std::vector<Clock::duration> restarts;
        for (int i = 0; i < m_plan.emulatorRestarts; ++i)
            restarts.push_back(span * std::uniform_int_distribution<int>(10, 85)(m_moments) / 100);
        std::sort(restarts.begin(), restarts.end());
        std::size_t nextRestart = 0;
        Clock::time_point emulatorStarted;
        auto life = std::chrono::milliseconds(lifeMs(m_moments));
        m_out << fmt::format("under kills: {} files over {} s, {} runner kills, {} emulator restarts\n", files,
                             span.count() / 1000, m_plan.kills, restarts.size())
              << std::flush;

        m_runner->start();
        auto const began = Clock::now();
        std::future<void> producer = produce(0, files, span / files);
        drain(producer, "under kills", [&](QueueCounts const& counts) {
            sampleRunner();
            if (nextRestart < restarts.size() && Clock::now() - began >= restarts[nextRestart]) {
                // Not while a runner just started, or one that found its token refused by the last
                // restart, may be asking the Locator: a failed lookup holds the queue for the
                // uploader's five-minute back-off (README), a wait the soak does not measure.
                // SIGKILL and SIGTERM by turns: a cloud that crashes, one that shuts down.
                if (m_runner->age() < kLookupDone || Clock::now() - emulatorStarted < kLookupDone) return true;
                bool const hard = nextRestart % 2 == 0;
                m_emulator.restart(hard ? SIGKILL : SIGTERM);
                emulatorStarted = Clock::now();
                ++(hard ? m_summary.emulatorKills : m_summary.emulatorStops);
                m_emulator.setFaults(faults(int(++nextRestart)));
            } else if (m_summary.kills < m_plan.kills && m_runner->age() >= life) {
                restartRunner();
                life = std::chrono::milliseconds(lifeMs(m_moments));
                m_out << fmt::format("  {:5.1f} s: {} of {} delivered, {} kills, {} emulator restarts\n",
                                     secondsSince(began), counts.delivered, files, m_summary.kills, nextRestart)
                      << std::flush;
            }
            return m_summary.kills < m_plan.kills || nextRestart < restarts.size();
        });
        m_summary.drainUnderKills = secondsSince(began);
    }

    void steady()
    {
        int const first = m_plan.underKills;
        int const count = m_options.files - first;
        int const warmUp = std::min(count, int(m_options.concurrency));
        m_summary.warmUp = warmUp;
        m_out << fmt::format("steady: one runner, {} files without faults, then {} with them\n", warmUp, count - warmUp)
              << std::flush;
        m_emulator.setFaults("");
        ++m_summary.runnerStops;
        m_summary.runnerCleanStops += m_runner->stop() ? 1 : 0;
        m_runner->start();
        std::future<void> warming = produce(first, warmUp);
        drain(warming, "warm-up", [](QueueCounts const&) { return false; });
        std::this_thread::sleep_for(std::chrono::seconds(1));
        m_summary.steadyStart = processFigures(m_runner->pid());

        m_emulator.setFaults(faults(m_plan.emulatorRestarts + 1));
        auto const began = Clock::now();
        std::future<void> producer = produce(first + warmUp, count - warmUp);
        drain(producer, "steady", [](QueueCounts const&) { return false; });
        m_summary.drainSteady = secondsSince(began);
        m_summary.steadyEnd = settledFigures(m_summary.steadyStart);
        ++m_summary.runnerStops;
        m_summary.runnerCleanStops += m_runner->stop() ? 1 : 0;
    }

    // The runner's figures once finished work has gone (a thread on its way out, a connection
    // closing): waits up to 10 s for the start's counts.
    ProcessFigures settledFigures(ProcessFigures const& start) const
    {
        auto const deadline = Clock::now() + std::chrono::seconds(10);
        ProcessFigures figures = processFigures(m_runner->pid());
        while ((figures.threads > start.threads || figures.openFiles > start.openFiles) && Clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            figures = processFigures(m_runner->pid());
        }
        return figures;
    }

    QueueSoakOptions const& m_options;
    QueueSoakPlan const m_plan;
    std::ostream& m_out;
    std::mt19937_64 m_moments;
    EmulatorProcess m_emulator;
    std::unique_ptr<UploadQueue> m_queue;
    std::optional<RunnerProcess> m_runner;
    std::vector<QueuedFile> m_files;
    QueueSummary m_summary;
    bool m_sampled = false;
};

} // namespace

QueueSoakPlan queueSoakPlan(int files)
{
    QueueSoakPlan plan;
    plan.underKills = files - files / 5;
    plan.kills = std::max(5, files / 40);
    plan.emulatorRestarts = std::max(2, files / 250);
    return plan;
}

bool runQueueSoak(QueueSoakOptions const& options, std::ostream& out)
{
    QueueSoak soak(options, out);
    QueueSummary const summary = soak.run();
    return printQueueReport(summary, out);
}

} // namespace tavix::soak
