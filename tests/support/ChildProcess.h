// A built program run as a subprocess, its standard output and error going to files: no pipe
// fills up while a test waits for it.
#pragma once

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

extern char** environ;

namespace tavix::test {

// The whole of a file ("" when it cannot be read).
inline std::string fileText(std::string const& path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

class ChildProcess {
public:
    // args[0] is the program's path.
    explicit ChildProcess(std::vector<std::string> args)
    {
        std::vector<char*> argv;
        for (std::string& arg : args) argv.push_back(arg.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, m_out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(&actions, 2, m_err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        EXPECT_EQ(posix_spawn(&m_pid, argv[0], &actions, nullptr, argv.data(), environ), 0) << argv[0];
        posix_spawn_file_actions_destroy(&actions);
    }
    ChildProcess(ChildProcess const&) = delete;
    ChildProcess& operator=(ChildProcess const&) = delete;
    ~ChildProcess()
    {
        stop();
        boost::system::error_code ignored;
        boost::filesystem::remove(m_out, ignored), boost::filesystem::remove(m_err, ignored);
    }

    std::string out() const { return fileText(m_out); }
    std::string err() const { return fileText(m_err); }
    // Whether it has ended, without waiting.
    bool exited()
    {
        if (m_pid > 0 && ::waitpid(m_pid, &m_status, WNOHANG) == m_pid) m_pid = 0;
        return m_pid <= 0;
    }
    // Waits for the end: the exit status, or 128 + the signal that ended it.
    int wait()
    {
        if (m_pid > 0 && ::waitpid(m_pid, &m_status, 0) == m_pid) m_pid = 0;
        return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : 128 + WTERMSIG(m_status);
    }
    int stop(int signal = SIGTERM)
    {
        if (m_pid > 0) ::kill(m_pid, signal);
        return wait();
    }

private:
    static std::string temporary(char const* pattern)
    {
        return (boost::filesystem::temp_directory_path() / boost::filesystem::unique_path(pattern)).string();
    }

    std::string const m_out = temporary("child-out-%%%%%%"), m_err = temporary("child-err-%%%%%%");
    pid_t m_pid = 0;
    int m_status = 127 << 8; // until reaped: as a program that could not be run
};

} // namespace tavix::test
