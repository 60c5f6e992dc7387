#include <tools/soak/EmulatorProcess.h>

#include <tavix/controller/Settings.h>

#include <boost/filesystem/operations.hpp>

#include <curl/curl.h>
#include <json/reader.h>

#include <csignal>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tavix::soak {
namespace {

namespace fs = boost::filesystem;

std::string slurp(fs::path const& file)
{
    std::ostringstream text;
    text << std::ifstream(file.string()).rdbuf();
    return text.str();
}

// What follows the last line that starts with `prefix`, and how many such lines there are.
std::pair<std::string, int> lastLineAfter(std::string const& text, std::string const& prefix)
{
    std::istringstream lines(text);
    std::pair<std::string, int> found;
    for (std::string line; std::getline(lines, line);)
        if (line.rfind(prefix, 0) == 0) found = {line.substr(prefix.size()), found.second + 1};
    return found;
}

std::size_t keepText(char* data, std::size_t size, std::size_t count, void* text)
{
    static_cast<std::string*>(text)->append(data, size * count);
    return size * count;
}

} // namespace

EmulatorProcess::EmulatorProcess(fs::path const& program, fs::path const& workDirectory,
                                 std::chrono::seconds tokenLifetime)
    : m_program(program), m_work(workDirectory), m_tokenLifetime(tokenLifetime)
{
    launch();
    boost::system::error_code ec;
    controller::Settings const settings = controller::Settings::parse(slurp(settingsFile()), ec);
    if (ec) throw std::runtime_error("the emulator's settings do not read: " + ec.message());
    m_caFile = settings.caFile;
    m_clientCertFile = settings.clientCertFile;
}

void EmulatorProcess::launch()
{
    fs::path const output = m_work / "emulator.out";
    std::vector<std::string> arguments{m_program.string(),
                                       "--make-certs",
                                       "--require-client-cert",
                                       "--data-dir",
                                       dataDirectory().string(),
                                       "--port",
                                       m_port,
                                       "--write-settings",
                                       settingsFile().string(),
                                       "--token-lifetime",
                                       std::to_string(m_tokenLifetime.count())};
    if (!m_faults.empty()) arguments.insert(arguments.end(), {"--faults", m_faults});
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    // Every run's output in one file, one after the other.
    int const out =
        ::open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND | (m_runs == 0 ? O_TRUNC : 0) | O_CLOEXEC, 0600);
    if (out < 0) throw std::runtime_error("cannot write " + output.string());
    ++m_runs;

    pid_t const parent = getpid();
    m_pid = fork();
    if (m_pid == 0) {
        // Only async-signal-safe calls from here on.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent) _exit(127);
        dup2(out, 1);
        dup2(out, 2);
        execv(argv[0], argv.data());
        _exit(127);
    }
    ::close(out);
    if (m_pid < 0) throw std::runtime_error("cannot start " + m_program.string());

    // The settings file is written after the address is printed.
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (;;) {
        std::string const text = slurp(output);
        auto const [baseUrl, listening] = lastLineAfter(text, "listening on ");
        if (listening == m_runs && lastLineAfter(text, "controller settings written to ").second == m_runs) {
            m_baseUrl = baseUrl;
            m_port = baseUrl.substr(baseUrl.rfind(':') + 1);
            return;
        }
        int status = 0;
        if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_pid = -1;
            throw std::runtime_error("the emulator ended at once: " + text);
        }
        if (std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error("the emulator did not start: " + text);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

EmulatorProcess::~EmulatorProcess() { stop(); }

bool EmulatorProcess::stop()
{
    if (m_pid < 0) return true;
    kill(m_pid, SIGTERM);
    int status = 0;
    while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {}
    m_pid = -1;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void EmulatorProcess::restart(int signal)
{
    m_injectedBefore = faultReport()["injected"];
    kill(m_pid, signal);
    int status = 0;
    while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {}
    m_pid = -1;
    // Its port may be taken for a moment by a connection on its way out.
    for (int attempt = 1;; ++attempt) {
        try {
            return launch();
        } catch (std::runtime_error const&) {
            if (attempt == 5) throw;
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
        }
    }
}

void EmulatorProcess::setFaults(std::string const& text)
{
    // Setting them starts the emulator's counts over.
    m_injectedBefore = faultReport()["injected"];
    control("/_emulator/faults", &text);
    m_faults = text;
}

Json::Value EmulatorProcess::faultReport()
{
    std::string const body = control("/_emulator/faults", nullptr);
    Json::Value report;
    std::istringstream in(body);
    std::string errors;
    if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &report, &errors))
        throw std::runtime_error("the emulator's fault report is not JSON: " + errors);
    for (std::string const& kind : m_injectedBefore.getMemberNames())
        report["injected"][kind] = report["injected"][kind].asUInt64() + m_injectedBefore[kind].asUInt64();
    return report;
}

std::string EmulatorProcess::control(std::string const& path, std::string const* postBody)
{
    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), &curl_easy_cleanup);
    if (!curl) throw std::runtime_error("curl_easy_init failed");
    std::string const url = m_baseUrl + path;
    std::string answer;
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_CAINFO, m_caFile.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_SSLCERT, m_clientCertFile.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_SSLKEY, m_clientCertFile.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 30L);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, &keepText);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &answer);
    if (postBody) {
        curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, postBody->c_str());
        curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE, long(postBody->size()));
    }
    CURLcode const result = curl_easy_perform(curl.get());
    long status = 0;
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
    if (result != CURLE_OK || status != 200)
        throw std::runtime_error(url + ": " + (result != CURLE_OK ? curl_easy_strerror(result) : answer));
    return answer;
}

} // namespace tavix::soak
