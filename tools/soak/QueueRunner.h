// The upload queue's runner as the queue soak runs it: a process of its own (this program again,
// with --queue-runner), killed with SIGKILL at random and started again, so that only the spool's
// journal and the queue's in-doubt checks carry the uploads through.
#pragma once

#include <restclient/storage/UploadQueue.h>

#include <boost/filesystem/path.hpp>

#include <chrono>
#include <string>
#include <vector>

#include <sys/types.h>

namespace tavix::soak {

struct QueueSetup {
    boost::filesystem::path spool;
    std::string caFile; // the emulator's CA, for the transfer
    unsigned concurrency = 8;
};

// The options both sides open the spool with: the app key of the soak's uploads, and a back-off
// of 1 s doubling up to 10 s, so that a spool drains within minutes of the faults.
restclient::storage::UploadQueueOptions soakQueueOptions(QueueSetup const& setup);

// The runner's whole life: opens the spool, starts the queue, writes "runner started" to stdout
// and sends until SIGTERM or SIGINT, then stops the queue and returns 0; 2 when the spool can't
// be opened or the queue can't start.
int runQueueRunner(QueueSetup const& setup);

// The runner as a child process, its output appended to a file. It dies with the soak.
class RunnerProcess {
public:
    // `logConfig`: the log4cplus properties the runner is given (empty: the soak's environment).
    RunnerProcess(boost::filesystem::path const& program, QueueSetup const& setup,
                  boost::filesystem::path const& output, std::string const& logConfig);
    RunnerProcess(RunnerProcess const&) = delete;
    RunnerProcess& operator=(RunnerProcess const&) = delete;
    ~RunnerProcess(); // SIGKILL

    // Starts a runner and waits until its queue has started; throws when it does not within 30 s.
    void start();
    // SIGKILL, and waits for it to be gone.
    void kill();
    // SIGTERM; true when it stopped its queue and exited with 0 within 30 s (else it is killed).
    bool stop();

    pid_t pid() const { return m_pid; }
    std::chrono::steady_clock::duration age() const { return std::chrono::steady_clock::now() - m_started; }

private:
    // Waits for the runner's end (at most `timeout`); its exit status, -1 when it did not end.
    int reap(std::chrono::milliseconds timeout);

    std::vector<std::string> m_arguments;
    std::vector<std::string> m_environment;
    boost::filesystem::path m_output;
    pid_t m_pid = -1;
    int m_runs = 0;
    std::chrono::steady_clock::time_point m_started;
};

} // namespace tavix::soak
