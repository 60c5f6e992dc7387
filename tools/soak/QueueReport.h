// The queue soak's table and its checks.
#pragma once

#include <tools/soak/ProcessFigures.h>
#include <tools/soak/QueueVerification.h>

#include <restclient/storage/UploadQueue.h>

#include <json/value.h>

#include <iosfwd>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tavix::soak {

struct QueueSummary {
    std::uint64_t seed = 0;
    unsigned concurrency = 0;
    double seconds = 0;
    std::vector<QueuedFile> const* files = nullptr;
    int underKills = 0;         // the first files, sent while the runner and the emulator are killed
    double drainUnderKills = 0; // seconds from their first enqueue until the queue held none of them
    double drainSteady = 0;     // the same for the rest after the warm-up, with one runner
    int warmUp = 0;
    int killsPlanned = 0;
    int kills = 0;
    int emulatorKills = 0, emulatorStops = 0;
    Json::Value faultReport;
    restclient::storage::QueueCounts counts;            // at the end
    std::size_t leftInJournal = 0;                      // entries `list` still gives at the end
    std::uint64_t spoolBytesStart = 0;                  // held bytes by the queue's count
    std::uint64_t heldFilesStart = 0, heldFilesEnd = 0; // bytes of the files in the spool's files/ directory
    std::vector<std::string> problems;                  // what went wrong on the way (a phase that did not drain ...)
    std::vector<ProcessFigures> afterRestarts;          // the runner 1 s after each start under kills
    // From the runners' log: entries a start found left sending, and those already stored.
    std::optional<std::pair<long, long>> inDoubt;
    ProcessFigures steadyStart, steadyEnd; // the last runner, idle after the warm-up and at the end
    double memoryMarginMb = 0;
    int runnerStops = 0, runnerCleanStops = 0; // SIGTERMs, and those it answered by stopping and exiting 0
    std::string emulatorFailure;
    QueueVerification verification;
};

// Prints the table and the checks; true when every check held.
bool printQueueReport(QueueSummary const& summary, std::ostream& out);

} // namespace tavix::soak
