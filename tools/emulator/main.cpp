// restclient-emulator: the local cloud emulator as a program for scripts and manual testing.
// The first line on stdout is "listening on <baseUrl>"; it serves until SIGINT or SIGTERM.
#include <tools/emulator/CloudEmulator.h>

#include <boost/program_options.hpp>

#include <json/reader.h>

#include <csignal>
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

} // namespace

int main(int argc, char** argv)
{
    po::options_description options("restclient-emulator options");
    options.add_options()
        ("help,h", "show this help")
        ("port,p", po::value<unsigned short>(), "port on 127.0.0.1 (0: any free port)")
        ("data-dir,d", po::value<std::string>(), "where objects are kept (default: a temporary directory)")
        ("config,c", po::value<std::string>(), "JSON file with tokens, accountId, endpoints, users, ...")
        ("cert", po::value<std::string>(), "PEM certificate chain: serve HTTPS")
        ("key", po::value<std::string>(), "PEM private key of --cert")
        ("client-ca", po::value<std::string>(), "PEM CA whose client certificates are asked for")
        ("token,t", po::value<std::vector<std::string>>(), "accepted bearer token (repeatable)");

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
    if (arguments.count("config") && !loadConfigFile(arguments["config"].as<std::string>(), config, error)) {
        std::cerr << "restclient-emulator: " << error << "\n";
        return 2;
    }
    if (arguments.count("port"))
        config.port = arguments["port"].as<unsigned short>();
    if (arguments.count("data-dir"))
        config.dataDirectory = arguments["data-dir"].as<std::string>();
    if (arguments.count("token"))
        config.tokens = arguments["token"].as<std::vector<std::string>>();
    if (arguments.count("cert") != arguments.count("key")) {
        std::cerr << "restclient-emulator: --cert and --key go together\n";
        return 2;
    }
    if (arguments.count("cert")) {
        TlsFiles files;
        files.certificateChain = arguments["cert"].as<std::string>();
        files.privateKey = arguments["key"].as<std::string>();
        if (arguments.count("client-ca"))
            files.clientCa = arguments["client-ca"].as<std::string>();
        config.tls = files;
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
        int signal = 0;
        sigwait(&stopSignals, &signal);
    } catch (std::exception const& e) {
        std::cerr << "restclient-emulator: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
