#include <tools/cli/Session.h>

#include <tools/cli/Blocking.h>

#include <tavix/controller/AuthenticationServiceClient.h>
#include <tavix/controller/OAuthHelper.h>

#include <boost/algorithm/string/trim.hpp>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <utility>

namespace tavix::cli {

using namespace tavix::restclient;

namespace {

// What a given token is taken to last: a command is over long before.
constexpr long kGivenTokenSeconds = 24 * 3600;

} // namespace

Exit split(std::string const& url, Address& a)
{
    return a.parse(url) ? ok : fail(badUsage, "not an absolute URL: '" + url + "'");
}

Exit Session::begin()
{
    if (Exit const e = readToken(); e != ok) return e;
    if (!options.config.empty()) controller::Settings::useFile(options.config);
    // The flags go over the file's values for this process, the library's own reads included.
    struct Flag {
        char const* name;
        char const* key;
        std::string const& value;
    } const flags[] = {{"--locator-url", "locator_url", options.locatorUrl},
                       {"--auth-url", "auth_url", options.authUrl},
                       {"--ca-file", "ca_file", options.caFile},
                       {"--client-cert", "client_cert_file", options.clientCert},
                       {"--spool", "queue_spool", options.queueSpool},
                       {"--rate", "queue_rate", options.queueRate},
                       {"--concurrency", "queue_concurrency", options.queueConcurrency}};
    for (Flag const& flag : flags) {
        if (flag.value.empty()) continue;
        if (auto const bad = controller::Settings::set(flag.key, flag.value)) {
            return fail(badUsage,
                        std::string("settings: ") + flag.name + " '" + flag.value + "' (" + flag.key
                            + "): " + bad.message());
        }
    }
    boost::system::error_code ec;
    std::string detail;
    m_settings = controller::Settings::load(ec, &detail);
    if (ec) return fail(badUsage, "settings: " + detail + ": " + ec.message());
    return ok;
}

// A token on the command line is in the process list for every local user to read while the
// tool runs; a file or the environment keeps it to the user.
Exit Session::readToken()
{
    if (!options.tokenFile.empty()) {
        std::ifstream file(options.tokenFile);
        std::string line;
        if (!file) return fail(badUsage, "cannot read a token from " + options.tokenFile);
        std::getline(file, line);
        boost::algorithm::trim(line);
        if (line.empty()) return fail(badUsage, "the token file " + options.tokenFile + " holds no token");
        options.token = line;
    } else if (!options.token.empty()) {
        std::cerr << "restclient: warning: --token is visible to every local user in the process list; "
                     "use --token-file or RESTCLIENT_TOKEN\n";
    } else if (char const* fromEnv = std::getenv("RESTCLIENT_TOKEN"); fromEnv && *fromEnv) {
        options.token = fromEnv;
    }
    return ok;
}

Exit Session::authenticate(std::string const& appKey)
{
    std::string message;
    int const code = controller::AuthenticationServiceClient::AuthenticateController(appKey, message);
    if (code != 0) {
        return fail(authFailed,
                    "authentication of app key '" + appKey + "' failed: error " + std::to_string(code) + ": "
                        + message);
    }
    if (!controller::OAuthHelper::Instance().GetAuthToken(appKey)) {
        return fail(authFailed, "authentication of app key '" + appKey + "' stored no token");
    }
    return ok;
}

Exit Session::token(std::string& token)
{
    if (!options.token.empty()) {
        token = options.token;
        return ok;
    }
    if (m_token.empty()) {
        if (Exit const e = authenticate(options.appKey); e != ok) return e;
        m_token = controller::OAuthHelper::Instance().GetAuthToken(options.appKey)->GetToken();
    }
    token = m_token;
    return ok;
}

void Session::storeGivenToken() const
{
    if (options.token.empty()) return;
    controller::OAuthHelper::Instance().SetAuthToken(options.appKey, options.token, "Bearer", "", std::time(nullptr),
                                                     kGivenTokenSeconds);
}

Exit Session::locatorUrl(std::string& url) const
{
    if (m_settings.locatorUrl.empty()) {
        return fail(badUsage,
                    "no Locator URL: set locator_url in " + controller::Settings::path() + " or give --locator-url");
    }
    url = restclient::detail::restLocatorUrl(m_settings.locatorUrl);
    return ok;
}

Exit Session::location(std::string const& service, locator::LocationResponse& response)
{
    std::string url, bearer;
    Address a;
    if (Exit const e = locatorUrl(url); e != ok) return e;
    if (Exit const e = split(url, a); e != ok) return e;
    if (Exit const e = token(bearer); e != ok) return e;
    Reply<locator::LocationResponse> reply;
    locator::LocationClient client(io, reply.callback(), a.host, a.port, bearer, a.tls, a.path);
    Exit const e = await(io, client.getLocation(service), reply, "locate " + service, out);
    response = reply.response;
    return e;
}

Exit Session::serviceUrl(std::string const& given, std::string const& service, std::string& url)
{
    url = given;
    if (!url.empty()) return ok;
    locator::LocationResponse located;
    if (Exit const e = location(service, located); e != ok) return e;
    url = located.endpoint.endPointURL.value;
    return url.empty() ? fail(serviceError, "the Locator service gave no URL for " + service) : ok;
}

Exit Session::currentAccount(account::AccountResponse& account)
{
    std::string url, bearer;
    Address a;
    if (options.accountUrl.empty()) {
        if (Exit const e = serviceUrl({}, "ACCOUNT", url); e != ok) return e;
        url += "/v1/rest";
    } else {
        url = options.accountUrl;
    }
    if (Exit const e = split(url, a); e != ok) return e;
    if (Exit const e = token(bearer); e != ok) return e;
    Reply<account::AccountResponse> reply;
    account::AccountClient client(io, reply.callback(), a.host, a.port, bearer, a.tls, a.path);
    Exit const e = await(io, client.getCurrent(), reply, "current account", out);
    account = reply.response;
    return e;
}

Exit Session::storageUrl(std::string& url)
{
    url = options.storageUrl;
    if (!url.empty()) return ok;
    account::AccountResponse account;
    if (Exit const e = currentAccount(account); e != ok) return e;
    url = account.storageURL;
    return url.empty() ? fail(serviceError, "the current account has no \"storage\" link") : ok;
}

} // namespace tavix::cli
