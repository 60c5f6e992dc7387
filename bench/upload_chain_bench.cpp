// What the upload chain costs the cloud over HTTPS with a client certificate, connection reuse
// off and on: N uploads of a 1 KB file, one `FileUploader` after another, against the emulator
// in this process. Each mode runs its uploads in a process of its own (this program again), so
// that neither starts with the other's TLS sessions, token or cached Account URL; the emulator
// counts the TCP connections and the full and resumed TLS handshakes. The REST steps go through
// the library's HTTP client, the transfer through libcurl. A first, cold upload is measured
// alone, then N uploads; the later uploads' cost is the difference. The peer: the five requests
// of one upload (as the emulator captured them) replayed by bare libcurl over one kept handle.
//
//   upload_chain_bench [uploads=20]

#include <bench/upload/CurlChain.h>
#include <restclient/storage/FileUploader.h>
#include <tools/emulator/CloudEmulator.h>

#include <boost/filesystem.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;
using namespace tavix;
using Clock = std::chrono::steady_clock;

std::string certFile(char const* name) { return std::string(RESTCLIENT_TEST_CERT_DIR) + "/" + name; }

// The sending process: `count` uploads of `file`; prints "first <ms>" and "later <mean ms>".
int send(fs::path const& file, int count)
{
    double first = 0, later = 0;
    for (int i = 0; i < count; ++i) {
        auto const start = Clock::now();
        restclient::storage::FileUploader uploader(file, "chain/" + std::to_string(i), "log", {}, "chain-bench");
        uploader.SetCACertFile(certFile("ca.pem"));
        uploader.WaitFinished(std::chrono::minutes(5));
        if (uploader.step != 6 || uploader.errorCode != 0) {
            std::fprintf(stderr, "upload %d failed: %d %s\n", i, static_cast<int>(uploader.errorCode),
                         uploader.errorMessage.c_str());
            return 1;
        }
        double const ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
        (i == 0 ? first : later) += ms;
    }
    std::printf("first %f\nlater %f\n", first, count > 1 ? later / (count - 1) : 0.0);
    return 0;
}

struct Run {
    emulator::ConnectionCounts cost;
    double firstMs = 0;
    double laterMs = 0;
};

emulator::ConnectionCounts minus(emulator::ConnectionCounts const& a, emulator::ConnectionCounts const& b)
{
    return {a.connections - b.connections, a.closed - b.closed, a.fullHandshakes - b.fullHandshakes,
            a.resumedHandshakes - b.resumedHandshakes};
}

// Runs the sending process against the settings named by TAVIX_CONTROLLER_CONFIG.
Run runSender(emulator::CloudEmulator& cloud, fs::path const& file, int count)
{
    emulator::ConnectionCounts const before = cloud.server().connectionCounts();
    std::string const command =
        fmt::format("'{}' --send '{}' {}", fs::read_symlink("/proc/self/exe").string(), file.string(), count);
    FILE* output = ::popen(command.c_str(), "r");
    if (!output) throw std::runtime_error("cannot start " + command);
    Run run;
    if (std::fscanf(output, "first %lf\nlater %lf", &run.firstMs, &run.laterMs) != 2) run.firstMs = -1;
    if (::pclose(output) != 0 || run.firstMs < 0) throw std::runtime_error("the sending process failed");
    run.cost = minus(cloud.server().connectionCounts(), before);
    return run;
}

// The REST requests of one upload (token, Locator, Account, store), in the order sent.
std::vector<emulator::CapturedRequest> restRequestsOf(std::vector<emulator::CapturedRequest> const& captured)
{
    std::vector<emulator::CapturedRequest> rest;
    for (auto const& request : captured) {
        if (request.method != "PUT") rest.push_back(request);
    }
    if (rest.size() != 4) throw std::runtime_error("expected four REST requests, saw " + std::to_string(rest.size()));
    return rest;
}

void printRow(char const* name, double connections, double full, double resumed, double ms)
{
    fmt::print("  {:<28} {:11.2f} {:9.2f} {:11.2f} {:10.1f}\n", name, connections, full, resumed, ms);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 4 && std::string(argv[1]) == "--send") return send(argv[2], std::atoi(argv[3]));
    int const uploads = argc > 1 ? std::max(2, std::atoi(argv[1])) : 20;

    fs::path const dir = fs::temp_directory_path() / fs::unique_path("upload-chain-%%%%%%");
    fs::create_directories(dir);
    int status = 0;
    try {
        emulator::EmulatorConfig config;
        config.tls = emulator::TlsFiles{certFile("server.pem"), certFile("server-key.pem"), certFile("ca.pem"), true};
        config.dataDirectory = (dir / "cloud").string();
        emulator::CloudEmulator cloud(config);

        fs::path const file = dir / "reading.bin";
        std::ofstream(file.string(), std::ios::binary) << std::string(1024, 'r');
        std::ofstream((dir / "log.properties").string()) << "log4cplus.rootLogger=WARN, err\n"
                                                            "log4cplus.appender.err=log4cplus::ConsoleAppender\n"
                                                            "log4cplus.appender.err.logToStdErr=true\n";
        ::setenv("TAVIX_LOG_CONFIG", (dir / "log.properties").c_str(), 1);

        std::vector<emulator::CapturedRequest> chain;
        double reuseLaterMs = 0;
        fmt::print("upload chain over HTTPS with a client certificate, a 1 KB file, one emulator host;\n"
                   "each mode in a fresh process: its first upload alone, then {} uploads\n",
                   uploads);
        fmt::print("  {:<28} {:>11} {:>9} {:>11} {:>10}\n", "per upload", "connections", "full TLS", "resumed TLS",
                   "wall ms");
        for (bool const reuse : {false, true}) {
            fs::path const settings = dir / (reuse ? "reuse.conf" : "no-reuse.conf");
            std::ofstream(settings.string())
                << "locator_url = " << cloud.locatorUrl() << "\nauth_url = " << cloud.tokenUrl()
                << "\ncommon_name = chain-bench\nca_file = " << certFile("ca.pem")
                << "\nclient_cert_file = " << certFile("client.pem")
                << "\nconnection_reuse = " << (reuse ? "true" : "false") << "\n";
            ::setenv("TAVIX_CONTROLLER_CONFIG", settings.c_str(), 1);
            cloud.server().clearRequests();
            Run const first = runSender(cloud, file, 1);
            if (reuse) chain = restRequestsOf(cloud.server().requests());
            Run const all = runSender(cloud, file, uploads);
            emulator::ConnectionCounts const later = minus(all.cost, first.cost);
            double const n = uploads - 1;
            std::string const mode = reuse ? "reuse on" : "reuse off";
            printRow((mode + ", first upload").c_str(), first.cost.connections, first.cost.fullHandshakes,
                     first.cost.resumedHandshakes, first.firstMs);
            printRow((mode + ", later uploads").c_str(), later.connections / n, later.fullHandshakes / n,
                     later.resumedHandshakes / n, all.laterMs);
            if (reuse) reuseLaterMs = all.laterMs;
        }
        bench::ChainTls const tls{certFile("ca.pem"), certFile("client.pem")};
        std::string const body(1024, 'r');
        emulator::ConnectionCounts const before = cloud.server().connectionCounts();
        bench::replayChain(chain, cloud.baseUrl(), body, tls, 1);
        emulator::ConnectionCounts const warm = cloud.server().connectionCounts();
        double const bareMs = bench::replayChain(chain, cloud.baseUrl(), body, tls, uploads);
        emulator::ConnectionCounts const bareFirst = minus(warm, before);
        emulator::ConnectionCounts const bareLater = minus(cloud.server().connectionCounts(), warm);
        printRow("bare libcurl, first round", bareFirst.connections, bareFirst.fullHandshakes,
                 bareFirst.resumedHandshakes, 0);
        printRow("bare libcurl, later rounds", bareLater.connections / double(uploads),
                 bareLater.fullHandshakes / double(uploads), bareLater.resumedHandshakes / double(uploads), bareMs);
        fmt::print("  later uploads, reuse on / bare libcurl's five requests kept alive: {:.2f}\n",
                   reuseLaterMs / bareMs);
    } catch (std::exception const& e) {
        fmt::print(stderr, "upload_chain_bench: {}\n", e.what());
        status = 1;
    }
    boost::system::error_code ignored;
    fs::remove_all(dir, ignored);
    return status;
}
