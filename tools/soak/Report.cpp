#include <tools/soak/Report.h>

#include <fmt/format.h>

#include <map>
#include <ostream>

namespace tavix::soak {
namespace {

std::string megabytes(long kb) { return fmt::format("{:.1f} MB", double(kb) * 1024 / 1e6); }

double growthMb(long startKb, long endKb) { return double(endKb - startKb) * 1024 / 1e6; }

// One line per error code: how many, and its most frequent message.
void printFailures(std::vector<UploadOutcome> const& outcomes, std::ostream& out)
{
    std::map<int, std::map<std::string, int>> messages;
    for (UploadOutcome const& outcome : outcomes)
        if (!outcome.succeeded())
            ++messages[outcome.hung ? -1 : outcome.errorCode][outcome.hung ? "still running" : outcome.errorMessage];
    for (auto const& [code, texts] : messages) {
        int count = 0;
        auto common = texts.begin();
        for (auto it = texts.begin(); it != texts.end(); ++it) {
            count += it->second;
            if (it->second > common->second) common = it;
        }
        std::string const others = texts.size() > 1 ? fmt::format(" (and {} other messages)", texts.size() - 1) : "";
        out << fmt::format("  code {:<5} {:>5}  {}{}\n", code, count, common->first, others);
    }
}

bool printCheck(std::string const& what, std::vector<std::string> const& problems, std::ostream& out)
{
    out << fmt::format("  {:<5} {}\n", problems.empty() ? "ok" : "FAIL", what);
    for (std::size_t i = 0; i < problems.size() && i < 10; ++i) out << "          " << problems[i] << "\n";
    if (problems.size() > 10) out << fmt::format("          ... and {} more\n", problems.size() - 10);
    return problems.empty();
}

} // namespace

bool printReport(SoakSummary const& summary, std::ostream& out)
{
    std::vector<UploadOutcome> const& outcomes = *summary.outcomes;
    Verification const& verification = summary.verification;
    ProcessFigures const& start = summary.start;
    ProcessFigures const& end = summary.end;
    std::size_t succeeded = 0;
    for (UploadOutcome const& outcome : outcomes) succeeded += outcome.succeeded() ? 1 : 0;
    std::string injected;
    for (char const* kind : {"drop", "stall", "5xx", "401", "expired-url"})
        injected += fmt::format("{}{} {}", injected.empty() ? "" : ", ", kind,
                                summary.faultReport["injected"][kind].asUInt64());

    out << fmt::format("\n== soak results: seed {}, {} uploads, {} threads, {:.0f} s\n", summary.seed, outcomes.size(),
                       summary.threads, summary.seconds)
        << fmt::format("{:<30}{:>14}\n", "uploads succeeded", succeeded)
        << fmt::format("{:<30}{:>14}\n", "uploads failed", outcomes.size() - succeeded);
    printFailures(outcomes, out);
    out << fmt::format("{:<30}{}\n", "faults injected", injected)
        << fmt::format("{:<30}{:>14} ({} with a body)\n", "objects the emulator holds", verification.objects,
                       verification.objectsWithBody)
        << fmt::format("{:<30}{:>14} ({:.1f} MB in {} objects)\n", "bytes verified by MD5", verification.bytesVerified,
                       double(verification.bytesVerified) / 1e6, verification.verified)
        << fmt::format("\n{:<30}{:>14}{:>14}\n", "this process", "start", "end")
        << fmt::format("{:<30}{:>14}{:>14}\n", "threads", start.threads, end.threads)
        << fmt::format("{:<30}{:>14}{:>14}\n", "open files", start.openFiles, end.openFiles)
        << fmt::format("{:<30}{:>14}{:>14}\n", "resident memory", megabytes(start.residentKb),
                       megabytes(end.residentKb))
        << fmt::format("{:<30}{:>11} kB{:>11} kB\n", "heap in use", start.heapInUseKb, end.heapInUseKb) << "\nchecks\n";

    std::vector<std::string> flat, memory, heap, emulator;
    if (end.threads > start.threads || end.openFiles > start.openFiles)
        flat.push_back(fmt::format("threads {} -> {}, open files {} -> {}", start.threads, end.threads, start.openFiles,
                                   end.openFiles));
    double const resident = growthMb(start.residentKb, end.residentKb);
    if (resident > summary.memoryMarginMb) memory.push_back(fmt::format("grew by {:.1f} MB", resident));
    double const inUse = growthMb(start.heapInUseKb, end.heapInUseKb);
    if (inUse > summary.heapMarginMb) heap.push_back(fmt::format("grew by {:.2f} MB", inUse));
    if (!summary.emulatorFailure.empty()) emulator.push_back(summary.emulatorFailure);

    bool held = printCheck("every success is stored with the right bytes", verification.lost, out);
    held &= printCheck("every failure carries a code and a message", verification.unexplained, out);
    held &= printCheck("no upload is stored twice", verification.storedTwice, out);
    held &= printCheck("no body is stored for a failed upload", verification.strayBodies, out);
    held &= printCheck("threads and open files flat", flat, out);
    held &= printCheck(fmt::format("resident memory within {} MB of the start", summary.memoryMarginMb), memory, out);
    held &= printCheck(fmt::format("heap in use within {} MB of the start", summary.heapMarginMb), heap, out);
    held &= printCheck("the emulator ran to its end", emulator, out);
    out << "nothing lost: " << (held ? "yes" : "NO") << "\n";
    return held;
}

} // namespace tavix::soak
