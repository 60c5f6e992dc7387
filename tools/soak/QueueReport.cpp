#include <tools/soak/QueueReport.h>

#include <fmt/format.h>

#include <algorithm>
#include <ostream>

namespace tavix::soak {
namespace {

using restclient::storage::HoldMode;

std::string megabytes(double kb) { return fmt::format("{:.1f} MB", kb * 1024 / 1e6); }

bool printCheck(std::string const& what, std::vector<std::string> const& problems, std::ostream& out)
{
    out << fmt::format("  {:<5} {}\n", problems.empty() ? "ok" : "FAIL", what);
    for (std::size_t i = 0; i < problems.size() && i < 10; ++i) out << "          " << problems[i] << "\n";
    if (problems.size() > 10) out << fmt::format("          ... and {} more\n", problems.size() - 10);
    return problems.empty();
}

// "lowest..highest" of one figure over the samples.
template <typename Figure>
std::string range(std::vector<ProcessFigures> const& samples, Figure figure)
{
    if (samples.empty()) return "-";
    auto const [low, high] = std::minmax_element(samples.begin(), samples.end(),
                                                 [&](auto const& a, auto const& b) { return figure(a) < figure(b); });
    return fmt::format("{}..{}", figure(*low), figure(*high));
}

} // namespace

bool printQueueReport(QueueSummary const& summary, std::ostream& out)
{
    std::vector<QueuedFile> const& files = *summary.files;
    QueueVerification const& verification = summary.verification;
    restclient::storage::QueueCounts const& counts = summary.counts;
    std::size_t copied = 0, linked = 0;
    std::uint64_t bytes = 0;
    for (QueuedFile const& file : files) {
        (file.hold == HoldMode::link ? linked : copied) += 1;
        bytes += file.file.size;
    }
    std::string injected;
    for (char const* kind : {"drop", "stall", "5xx", "401", "expired-url", "drop-after-body"})
        injected += fmt::format("{}{} {}", injected.empty() ? "" : ", ", kind,
                                summary.faultReport["injected"][kind].asUInt64());

    out << fmt::format("\n== queue soak results: seed {}, {} files, {} at a time, {:.0f} s\n", summary.seed,
                       files.size(), summary.concurrency, summary.seconds)
        << fmt::format("{:<32}{:>8} ({} copied, {} linked; {:.1f} MB)\n", "files enqueued",
                       files.size() - verification.notEnqueued.size(), copied, linked, double(bytes) / 1e6)
        << fmt::format("{:<32}{:>8}\n", "delivered (the queue's count)", counts.delivered)
        << fmt::format("{:<32}{:>8} ({:.1f} MB)\n", "stored once, MD5 verified", verification.storedOnce,
                       double(verification.bytesVerified) / 1e6)
        << fmt::format("{:<32}{:>8}\n", "duplicates (a second body)", verification.duplicates)
        << fmt::format("{:<32}{:>8} (store requests whose transfer never ended)\n", "objects without a body",
                       verification.withoutBody)
        << fmt::format("{:<32}{:>8} pending, {} sending, {} failed\n", "left in the journal", counts.pending,
                       counts.sending, counts.failed)
        << fmt::format("{:<32}{:>8} at the start, {} at the end (on disk: {} and {})\n", "spool's held bytes",
                       summary.spoolBytesStart, counts.spoolBytes, summary.heldFilesStart, summary.heldFilesEnd)
        << fmt::format("{:<32}{:>8} (SIGKILL at random moments)\n", "runner kills survived", summary.kills)
        << fmt::format("{:<32}{:>8} ({} SIGKILL, {} SIGTERM)\n", "emulator restarts",
                       summary.emulatorKills + summary.emulatorStops, summary.emulatorKills, summary.emulatorStops)
        << fmt::format("{:<32}{}\n", "faults injected", injected);
    if (summary.inDoubt)
        out << fmt::format("{:<32}{:>8} ({} of them already stored: not sent again)\n", "in doubt after a kill",
                           summary.inDoubt->first, summary.inDoubt->second);
    out << fmt::format("{:<32}{:>6.0f} s for the first {} files (under kills), {:.0f} s for the last {} (one runner, "
                       "after a warm-up of {})\n",
                       "time to drain", summary.drainUnderKills, summary.underKills, summary.drainSteady,
                       files.size() - std::size_t(summary.underKills + summary.warmUp), summary.warmUp);

    std::vector<ProcessFigures> const& lives = summary.afterRestarts;
    ProcessFigures const& start = summary.steadyStart;
    ProcessFigures const& end = summary.steadyEnd;
    out << fmt::format("\n{:<24}{:>16}{:>14}{:>14}\n", "the runner process",
                       fmt::format("after {} starts", lives.size()), "steady start", "steady end")
        << fmt::format("{:<24}{:>16}{:>14}{:>14}\n", "threads", range(lives, [](auto& f) { return f.threads; }),
                       start.threads, end.threads)
        << fmt::format("{:<24}{:>16}{:>14}{:>14}\n", "open files", range(lives, [](auto& f) { return f.openFiles; }),
                       start.openFiles, end.openFiles)
        << fmt::format("{:<24}{:>16}{:>14}{:>14}\n", "resident memory (MB)",
                       range(lives, [](auto& f) { return fmt::format("{:.1f}", f.residentKb * 1024 / 1e6); }),
                       megabytes(double(start.residentKb)), megabytes(double(end.residentKb)))
        << "\nchecks\n";

    std::vector<std::string> journal, spool, kills, stops, flat, memory, emulator;
    if (counts.delivered != files.size())
        journal.push_back(fmt::format("{} delivered of {}", counts.delivered, files.size()));
    if (counts.pending + counts.sending + counts.failed + counts.expired + counts.dropped > 0
        || summary.leftInJournal > 0)
        journal.push_back(fmt::format("{} pending, {} sending, {} failed, {} expired, {} dropped; list gives {}",
                                      counts.pending, counts.sending, counts.failed, counts.expired, counts.dropped,
                                      summary.leftInJournal));
    journal.insert(journal.end(), summary.problems.begin(), summary.problems.end());
    if (counts.spoolBytes != summary.spoolBytesStart || summary.heldFilesEnd != summary.heldFilesStart)
        spool.push_back(
            fmt::format("{} bytes held at the end, {} at the start", counts.spoolBytes, summary.spoolBytesStart));
    if (summary.kills < summary.killsPlanned)
        kills.push_back(fmt::format("{} of the {} planned", summary.kills, summary.killsPlanned));
    if (summary.runnerCleanStops != summary.runnerStops)
        stops.push_back(
            fmt::format("{} of {} SIGTERMs ended in a clean stop", summary.runnerCleanStops, summary.runnerStops));
    if (end.threads > start.threads || end.openFiles > start.openFiles)
        flat.push_back(fmt::format("threads {} -> {}, open files {} -> {}", start.threads, end.threads, start.openFiles,
                                   end.openFiles));
    double const grown = double(end.residentKb - start.residentKb) * 1024 / 1e6;
    if (grown > summary.memoryMarginMb) memory.push_back(fmt::format("grew by {:.1f} MB", grown));
    if (!summary.emulatorFailure.empty()) emulator.push_back(summary.emulatorFailure);

    bool held = printCheck("every file enqueued", verification.notEnqueued, out);
    held &= printCheck("every file stored, with the right bytes", verification.notStored, out);
    held &= printCheck("no file stored twice", verification.storedTwice, out);
    held &= printCheck("no body stored under another name", verification.strayBodies, out);
    held &= printCheck("every entry delivered, none left in the journal", journal, out);
    held &= printCheck("the spool's held bytes back to their start", spool, out);
    held &= printCheck("the runner killed as planned", kills, out);
    held &= printCheck("the runner stops cleanly on SIGTERM", stops, out);
    held &= printCheck("the runner's threads and open files flat", flat, out);
    held &= printCheck(fmt::format("the runner's resident memory within {} MB", summary.memoryMarginMb), memory, out);
    held &= printCheck("the emulator ran to its end", emulator, out);
    out << "every file exactly once: " << (held ? "yes" : "NO") << "\n";
    return held;
}

} // namespace tavix::soak
