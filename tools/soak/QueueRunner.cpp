#include <tools/soak/QueueRunner.h>

#include <fmt/format.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace tavix::soak {
namespace {

using restclient::storage::QueueError;
using Clock = std::chrono::steady_clock;

int startedLines(boost::filesystem::path const& output)
{
    std::ifstream in(output.string());
    int count = 0;
    for (std::string line; std::getline(in, line);) count += line == "runner started" ? 1 : 0;
    return count;
}

std::string tail(boost::filesystem::path const& output)
{
    std::ostringstream text;
    text << std::ifstream(output.string()).rdbuf();
    std::string const all = text.str();
    return all.size() > 2000 ? all.substr(all.size() - 2000) : all;
}

} // namespace

restclient::storage::UploadQueueOptions soakQueueOptions(QueueSetup const& setup)
{
    restclient::storage::UploadQueueOptions options;
    options.spool = setup.spool;
    options.appKey = "soak-app";
    options.concurrency = setup.concurrency;
    options.backoffBase = std::chrono::seconds(1);
    options.backoffCap = std::chrono::seconds(10);
    options.caFile = setup.caFile;
    return options;
}

int runQueueRunner(QueueSetup const& setup)
{
    // Blocked before the queue's threads start, so that only sigwait below sees them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    boost::system::error_code ec;
    std::string detail;
    auto queue = restclient::storage::UploadQueue::open(soakQueueOptions(setup), ec, &detail);
    if (!queue) {
        std::cerr << "runner: cannot open the spool: " << ec.message() << " (" << detail << ")" << std::endl;
        return 2;
    }
    // The runner killed a moment ago may not have let go of the spool yet.
    auto const deadline = Clock::now() + std::chrono::seconds(10);
    while ((ec = queue->start()) == QueueError::runnerActive && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    if (ec) {
        std::cerr << "runner: the queue does not start: " << ec.message() << std::endl;
        return 2;
    }
    std::cout << "runner started" << std::endl;
    int signal = 0;
    sigwait(&stopSignals, &signal);
    queue->stop();
    std::cout << "runner stopped" << std::endl;
    return 0;
}

RunnerProcess::RunnerProcess(boost::filesystem::path const& program, QueueSetup const& setup,
                             boost::filesystem::path const& output, std::string const& logConfig)
    : m_arguments{program.string(),
                  "--queue-runner",
                  setup.spool.string(),
                  "--queue-ca",
                  setup.caFile,
                  "--concurrency",
                  std::to_string(setup.concurrency)},
      m_output(output)
{
    for (char** variable = environ; *variable; ++variable)
        if (logConfig.empty() || std::strncmp(*variable, "TAVIX_LOG_CONFIG=", 17) != 0)
            m_environment.emplace_back(*variable);
    if (!logConfig.empty()) m_environment.push_back("TAVIX_LOG_CONFIG=" + logConfig);
}

RunnerProcess::~RunnerProcess() { kill(); }

void RunnerProcess::start()
{
    std::vector<char*> argv, envp;
    for (std::string& argument : m_arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    for (std::string& variable : m_environment) envp.push_back(variable.data());
    envp.push_back(nullptr);
    int const out = ::open(m_output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (out < 0) throw std::runtime_error("cannot write " + m_output.string());
    ++m_runs;

    pid_t const parent = getpid();
    m_pid = fork();
    if (m_pid == 0) {
        // Only async-signal-safe calls from here on.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(127);
        dup2(out, 1);
        dup2(out, 2);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    ::close(out);
    if (m_pid < 0) throw std::runtime_error("cannot start the queue's runner");
    m_started = Clock::now();

    auto const deadline = m_started + std::chrono::seconds(30);
    while (startedLines(m_output) < m_runs) {
        if (reap(std::chrono::milliseconds(0)) >= 0)
            throw std::runtime_error("the queue's runner ended at once: " + tail(m_output));
        if (Clock::now() > deadline) {
            kill();
            throw std::runtime_error("the queue's runner did not start: " + tail(m_output));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

void RunnerProcess::kill()
{
    if (m_pid < 0) return;
    ::kill(m_pid, SIGKILL);
    reap(std::chrono::hours(1));
}

bool RunnerProcess::stop()
{
    if (m_pid < 0) return false;
    ::kill(m_pid, SIGTERM);
    int const status = reap(std::chrono::seconds(30));
    if (status < 0) kill();
    return status == 0;
}

int RunnerProcess::reap(std::chrono::milliseconds timeout)
{
    auto const deadline = Clock::now() + timeout;
    for (;;) {
        int status = 0;
        pid_t const ended = waitpid(m_pid, &status, WNOHANG);
        if (ended == m_pid || (ended < 0 && errno != EINTR)) {
            m_pid = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        if (Clock::now() >= deadline) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

} // namespace tavix::soak
