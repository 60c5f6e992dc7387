// The queue soak: files handed to a durable upload queue while the process that sends them is
// killed with SIGKILL at random moments and the cloud restarts, then the check that each reached
// the Storage service exactly once and that nothing stayed behind.
//
// Two stretches. Under kills: the producer (this process) enqueues the first four fifths while
// the runner (RunnerProcess) is killed after a random 0.5 to 3 s of life and started again, and
// the emulator is killed or stopped and started again on its data directory and port at random
// moments. Steady: one runner, a warm-up without faults, then the last fifth with faults; its
// figures before and after show whether a runner that keeps going keeps its threads, descriptors
// and memory.
#pragma once

#include <boost/filesystem/path.hpp>

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <string>

namespace tavix::soak {

struct QueueSoakOptions {
    int files = 1000;
    std::uint64_t seed = 0;
    unsigned concurrency = 8;
    std::string faults; // the emulator's, the seed left out
    std::uint64_t maxSize = 4'000'000;
    int tokenLifetime = 30;
    double memoryMarginMb = 8;
    boost::filesystem::path work;
    boost::filesystem::path self; // this program, started again as the runner
    boost::filesystem::path emulator;
    std::string runnerLogConfig;       // the runner's log4cplus properties; empty: the environment's
    std::chrono::minutes deadline{30}; // for each stretch to drain
};

// How many files go under kills, and the kills and emulator restarts they get.
struct QueueSoakPlan {
    int underKills = 0;
    int kills = 0;
    int emulatorRestarts = 0;
};
QueueSoakPlan queueSoakPlan(int files);

// Runs it and prints the table; true when every check held. Throws when the soak cannot run.
bool runQueueSoak(QueueSoakOptions const& options, std::ostream& out);

} // namespace tavix::soak
