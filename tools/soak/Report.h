// The soak's table and its checks.
#pragma once

#include <tools/soak/ProcessFigures.h>
#include <tools/soak/UploadRun.h>
#include <tools/soak/Verification.h>

#include <json/value.h>

#include <iosfwd>
#include <string>
#include <vector>

namespace tavix::soak {

struct SoakSummary {
    std::uint64_t seed = 0;
    int threads = 0;
    double seconds = 0;
    std::vector<UploadOutcome> const* outcomes = nullptr;
    Json::Value faultReport; // the emulator's: {"faults": ..., "injected": {...}}
    Verification verification;
    ProcessFigures start; // after the warm-up
    ProcessFigures end;
    double memoryMarginMb = 0;
    double heapMarginMb = 0;
    std::string emulatorFailure; // empty: it ran to its end
};

// Prints the table and the checks; true when every check held.
bool printReport(SoakSummary const& summary, std::ostream& out);

} // namespace tavix::soak
