// restclient-emulator: the local cloud emulator as a program for scripts, manual testing and
// devices on the bench. The first line on stdout is "listening on <baseUrl>", then the data
// directory and the controller settings a device needs to reach it; it serves until SIGINT or
// SIGTERM.
#include <tools/emulator/CloudEmulator.h>

#include <boost/program_options.hpp>

#include <json/reader.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <iostream>

namespace po = boost::program_options;
using namespace tavix::emulator;

namespace {

bool loadConfigFile(std::string const& path, EmulatorConfig& config, std::string& error)
{
    std::ifstream in(path);
    if (!in) {
        error = "cannot read " + path;
        return false;
    }
    Json::Value document;
    std::string parseError;
    if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &document, &parseError)) {
        error = path + ": " + parseError;
        return false;
    }
    if (!applyConfigDocument(document, config, error)) {
        error = path + ": " + error;
        return false;
    }
    return true;
}

// Applies the command line over `config`; false with `error` set on a bad combination.
bool applyArguments(po::variables_map const& arguments, EmulatorConfig& config, std::string& error)
{
    if (arguments.count("config") && !loadConfigFile(arguments["config"].as<std::string>(), config, error))
        return false;
    if (arguments.count("address")) config.address = arguments["address"].as<std::string>();
    if (arguments.count("port")) config.port = arguments["port"].as<unsigned short>();
    if (arguments.count("data-dir")) config.dataDirectory = arguments["data-dir"].as<std::string>();
    if (arguments.count("token")) config.tokens = arguments["token"].as<std::vector<std::string>>();
    if (arguments.count("token-lifetime"))
        config.tokenLifetime = std::chrono::seconds(arguments["token-lifetime"].as<unsigned>());
    if (arguments.count("capture-requests")) config.capture.requests = arguments["capture-requests"].as<std::size_t>();
    if (arguments.count("capture-bytes")) config.capture.bodyBytes = arguments["capture-bytes"].as<std::size_t>();
    if (arguments.count("read-timeout"))
        config.readTimeout = std::chrono::milliseconds(arguments["read-timeout"].as<unsigned>() * 1000ull);
    if (arguments.count("faults")
        && !parseRandomFaults(arguments["faults"].as<std::string>(), config.randomFaults, error)) {
        error = "--faults: " + error;
        return false;
    }
    if (arguments.count("cert") != arguments.count("key")) {
        error = "--cert and --key go together";
        return false;
    }
    if (arguments.count("make-certs")) {
        if (arguments.count("cert")) {
            error = "--make-certs makes its own certificate: leave out --cert and --key";
            return false;
        }
        config.makeCertificates = true;
        config.tls = TlsFiles{};
    }
    if (arguments.count("cert")) {
        config.tls = TlsFiles{arguments["cert"].as<std::string>(), arguments["key"].as<std::string>()};
        if (arguments.count("client-ca")) config.tls->clientCa = arguments["client-ca"].as<std::string>();
    }
    if (arguments.count("require-client-cert")) {
        if (!config.makeCertificates && (!config.tls || config.tls->clientCa.empty())) {
            error = "--require-client-cert needs --make-certs, or --cert with --client-ca";
            return false;
        }
        config.tls->requireClientCertificate = true;
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    po::options_description options("restclient-emulator options");
    options.add_options()("help,h", "show this help")(
        "address,a", po::value<std::string>(), "address to listen on (default 127.0.0.1); the services' URLs name it")(
        "port,p", po::value<unsigned short>(), "port (default 0: any free port)")(
        "data-dir,d", po::value<std::string>(),
        "where objects, the URL signing key and made certificates are kept, across restarts "
        "(default: a temporary directory removed at exit)")("config,c", po::value<std::string>(),
                                                            "JSON file with tokens, accountId, endpoints, users, ...")(
        "token,t", po::value<std::vector<std::string>>(), "accepted bearer token that never expires (repeatable)")(
        "token-lifetime", po::value<unsigned>(), "seconds the token endpoint's tokens live (default 3600)")(
        "make-certs", "serve HTTPS with a throw-away CA, server and client certificate made in <data-dir>/certs")(
        "cert", po::value<std::string>(), "PEM certificate chain: serve HTTPS")(
        "key", po::value<std::string>(), "PEM private key of --cert")("client-ca", po::value<std::string>(),
                                                                      "PEM CA whose client certificates are asked for")(
        "require-client-cert", "refuse clients without a client certificate")(
        "faults", po::value<std::string>(),
        "faults at random, each a probability per request, e.g. "
        "drop=0.02,stall=0.02,stall-ms=2000,5xx=0.02,401=0.02,expired-url=0.01,drop-after-body=0.02,seed=7 "
        "(default none)")("capture-requests", po::value<std::size_t>(),
                          "requests kept for GET /_emulator/requests (default 1000)")(
        "capture-bytes", po::value<std::size_t>(), "bytes of their bodies kept (default 16 MiB; the oldest go first)")(
        "read-timeout", po::value<unsigned>(), "seconds a client may keep a connection without sending (default 30)")(
        "write-settings", po::value<std::string>(),
        "write the controller settings a device needs to FILE instead of printing them");

    po::variables_map arguments;
    try {
        po::store(po::parse_command_line(argc, argv, options), arguments);
        po::notify(arguments);
    } catch (po::error const& e) {
        std::cerr << "restclient-emulator: " << e.what() << "\n" << options;
        return 2;
    }
    if (arguments.count("help")) {
        std::cout << options;
        return 0;
    }

    EmulatorConfig config;
    std::string error;
    if (!applyArguments(arguments, config, error)) {
        std::cerr << "restclient-emulator: " << error << "\n";
        return 2;
    }

    // Blocked before the server thread starts, so that only sigwait below sees them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    try {
        CloudEmulator emulator(config);
        std::cout << "listening on " << emulator.baseUrl() << std::endl;
        std::cout << "data directory " << emulator.dataDirectory().string() << std::endl;
        std::string const settings = emulator.controllerSettings();
        if (arguments.count("write-settings")) {
            std::string const path = arguments["write-settings"].as<std::string>();
            // Whole or not at all: a script may be waiting for the file to appear.
            std::string const temporary = path + ".tmp";
            std::ofstream out(temporary, std::ios::trunc);
            if (!(out << settings) || !(out.close(), out) || std::rename(temporary.c_str(), path.c_str()) != 0) {
                std::cerr << "restclient-emulator: cannot write " << path << "\n";
                return 1;
            }
            std::cout << "controller settings written to " << path << std::endl;
        } else {
            std::cout << settings << std::flush;
        }
        int signal = 0;
        sigwait(&stopSignals, &signal);
    } catch (std::exception const& e) {
        std::cerr << "restclient-emulator: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
