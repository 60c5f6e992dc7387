// restclient: the cloud services (or the local emulator) from the command line, through the
// library's clients and its uploader.
#include <tools/cli/Commands.h>

#include <tavix/Logger.h>

#include <curl/curl.h>
#include <log4cplus/logger.h>

#include <cstdlib>
#include <exception>

int main(int argc, char** argv)
{
    using namespace tavix::cli;
    // Before any thread: the uploader's worker and the download both use libcurl.
    curl_global_init(CURL_GLOBAL_DEFAULT);
    Session session;
    Options& o = session.options;
    Run run;

    CLI::App app{"Talks to the cloud services (or the local emulator) with librestclient.\n"
                 "Endpoints, CA and client certificate come from the controller settings file; flags override.",
                 "restclient"};
    app.fallthrough();
    app.require_subcommand(1);
    app.get_formatter()->column_width(34);

    std::string const settings = "Settings (over the settings file)";
    app.add_option("--config", o.config,
                   "controller settings file (default: $TAVIX_CONTROLLER_CONFIG, else "
                   "/etc/tavix/controller.conf)")
        ->group(settings);
    app.add_option("--locator-url", o.locatorUrl, "Locator service URL (locator_url)")->group(settings);
    app.add_option("--auth-url", o.authUrl, "token endpoint (auth_url)")->group(settings);
    app.add_option("--ca-file", o.caFile, "CA bundle for HTTPS (ca_file)")->group(settings);
    app.add_option("--client-cert", o.clientCert, "client certificate and key, PEM (client_cert_file)")
        ->group(settings);
    std::string const services = "Service URLs (instead of asking the Locator and Account services)";
    app.add_option("--account-url", o.accountUrl, "Account service REST URL")->group(services);
    app.add_option("--storage-url", o.storageUrl, "Storage service URL of the account")->group(services);
    app.add_option("--geo-url", o.geoUrl, "geo service URL")->group(services);
    app.add_option("--httplite-url", o.httpliteUrl, "httplite registration service URL")->group(services);
    app.add_option("--token", o.token,
                   "bearer token (visible to other users: prefer --token-file or "
                   "$RESTCLIENT_TOKEN; default: authenticate with the app key)");
    app.add_option("--token-file", o.tokenFile, "a file whose first line is the bearer token")->excludes("--token");
    app.add_option("--app-key", o.appKey, "application key to authenticate with")->capture_default_str();
    app.add_flag("--json", session.out.json, "print the decoded document (or the error document) as JSON");
    bool verbose = false;
    app.add_flag("-v,--verbose", verbose,
                 "the library's log down to DEBUG on stderr (default: WARN; "
                 "TAVIX_LOG_CONFIG, when set, decides)");
    // Seconds between plain progress lines; tests make it short.
    app.add_option("--progress-interval", o.progressSeconds)->group("")->envname("RESTCLIENT_PROGRESS_INTERVAL");

    addServiceCommands(app, session, run);
    addStorageCommands(app, session, run);
    addTransferCommands(app, session, run);
    addQueueCommands(app, session, run);
    app.footer(kExitStatusHelp);
    for (CLI::App* sub : app.get_subcommands({})) sub->footer(kExitStatusHelp);

    try {
        app.parse(argc, argv);
    } catch (CLI::ParseError const& e) {
        // CLI11 would only say that a subcommand is required.
        if (std::vector<std::string> const words = app.remaining(); !words.empty() && app.get_subcommands().empty()) {
            return fail(badUsage, "unknown command '" + words.front() + "' (see restclient --help)");
        }
        return app.exit(e) == 0 ? ok : badUsage;
    }
    // The library logs its workers' milestones on the console; the tool keeps stderr for its own
    // messages unless asked otherwise.
    if (!std::getenv("TAVIX_LOG_CONFIG")) {
        tavix::Logger::initialize();
        log4cplus::Logger::getRoot().setLogLevel(verbose ? log4cplus::DEBUG_LOG_LEVEL : log4cplus::WARN_LOG_LEVEL);
    }
    try {
        if (Exit const e = session.begin(); e != ok) return e;
        return run();
    } catch (std::exception const& e) {
        return fail(localFailure, std::string("unexpected failure: ") + e.what());
    }
}
