#include <bench/upload/SenderProcess.h>

#include <boost/filesystem/fstream.hpp>
#include <boost/filesystem/operations.hpp>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

#include <spawn.h>
#include <sys/wait.h>

extern char** environ;

namespace tavix::bench {

double SenderReport::number(std::string const& key) const
{
    auto const found = values.find(key);
    return found == values.end() ? 0.0 : std::strtod(found->second.c_str(), nullptr);
}

std::string SenderReport::text(std::string const& key) const
{
    auto const found = values.find(key);
    return found == values.end() ? std::string() : found->second;
}

SenderReport runSender(boost::filesystem::path const& launcher, std::vector<std::string> const& arguments,
                       boost::filesystem::path const& report)
{
    boost::system::error_code ignored;
    boost::filesystem::remove(report, ignored);
    std::vector<std::string> command{launcher.string(), report.string()};
    command.insert(command.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string const& argument : command) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);

    pid_t child = 0;
    if (int const error = posix_spawn(&child, argv[0], nullptr, nullptr, argv.data(), environ))
        throw std::system_error(error, std::generic_category(), "posix_spawn " + command[0]);
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "waitpid");
    }

    SenderReport result;
    boost::filesystem::ifstream in(report);
    std::string key;
    while (in >> key) {
        std::string value;
        std::getline(in, value);
        if (!value.empty() && value.front() == ' ') value.erase(0, 1);
        result.values[key] = value;
    }
    if (result.values.count("exit") == 0) throw std::runtime_error("the launcher failed for " + arguments.front());
    result.exitCode = static_cast<int>(result.number("exit"));
    result.peakMegabytes = result.number("peak_kb") * 1024.0 / 1e6;
    return result;
}

} // namespace tavix::bench
