// The local cloud emulator run as a process of its own, so that what the soak measures of its
// own process is the library's alone. HTTPS with a client certificate required, as a device
// meets the cloud. It can be killed and started again on its data directory and port, as a
// cloud that restarts; it is stopped when the object goes, and dies with the soak.
#pragma once

#include <boost/filesystem/path.hpp>

#include <json/value.h>

#include <chrono>
#include <string>

#include <sys/types.h>

namespace tavix::soak {

class EmulatorProcess {
public:
    // Starts `program` with its data directory and the controller settings file in `workDirectory`,
    // handing out tokens that live `tokenLifetime`; returns once it listens. Throws when it does
    // not within 30 seconds.
    EmulatorProcess(boost::filesystem::path const& program, boost::filesystem::path const& workDirectory,
                    std::chrono::seconds tokenLifetime);
    EmulatorProcess(EmulatorProcess const&) = delete;
    EmulatorProcess& operator=(EmulatorProcess const&) = delete;
    ~EmulatorProcess();

    // Ends it (SIGTERM) and waits; true when it exited cleanly. Its data directory stays.
    bool stop();
    // Ends it with `signal` (SIGKILL: no chance to finish anything) and starts it again on the
    // same data directory and port, with the faults last set. Throws when it does not come back.
    void restart(int signal);

    boost::filesystem::path dataDirectory() const { return m_work / "cloud"; }
    boost::filesystem::path settingsFile() const { return m_work / "controller.conf"; }
    std::string caFile() const { return m_caFile; }

    // Random faults from now on, in the emulator's text form ("drop=0.02,5xx=0.01,seed=7").
    void setFaults(std::string const& text);
    // {"faults": <text form>, "injected": {"drop": n, ...}}, the counts summed over its runs and
    // settings (those of a run's last moments before a kill are lost).
    Json::Value faultReport();

private:
    // Starts the program and waits until it listens; throws when it does not within 30 seconds.
    void launch();
    // One exchange with the control interface; throws unless it answers 200.
    std::string control(std::string const& path, std::string const* postBody);

    boost::filesystem::path m_program;
    boost::filesystem::path m_work;
    std::chrono::seconds m_tokenLifetime;
    pid_t m_pid = -1;
    int m_runs = 0;
    std::string m_port = "0";
    std::string m_faults;
    Json::Value m_injectedBefore{Json::objectValue}; // by the runs and settings that have ended
    std::string m_baseUrl;
    std::string m_caFile;
    std::string m_clientCertFile;
};

} // namespace tavix::soak
