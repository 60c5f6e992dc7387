#include <tools/cli/Session.h>

#include <tools/cli/Blocking.h>

#include <platform/controller/AuthenticationServiceClient.h>
#include <platform/controller/OAuthHelper.h>

#include <boost/algorithm/string/trim.hpp>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <unistd.h>

namespace tavix::cli {

using namespace tavix::restclient;

Exit split(std::string const& url, Address& a)
{
    return a.parse(url) ? ok : fail(badUsage, "not an absolute URL: '" + url + "'");
}

Session::~Session()
{
    if (!m_settingsCopy.empty()) std::remove(m_settingsCopy.c_str());
}

Exit Session::begin()
{
    if (Exit const e = readToken(); e != ok) return e;
    if (!options.config.empty()) ::setenv("TAVIX_CONTROLLER_CONFIG", options.config.c_str(), 1);
    boost::system::error_code ec;
    std::string detail;
    m_settings = controller::Settings::load(ec, &detail);
    if (ec) return fail(badUsage, "settings: " + detail + ": " + ec.message());

    bool changed = false;
    auto apply = [&changed](std::string const& flag, std::string& setting) {
        if (flag.empty() || flag == setting) return;
        setting = flag;
        changed = true;
    };
    apply(options.locatorUrl, m_settings.locatorUrl);
    apply(options.authUrl, m_settings.authUrl);
    apply(options.caFile, m_settings.caFile);
    apply(options.clientCert, m_settings.clientCertFile);
    return changed ? writeSettingsCopy() : ok;
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

// The library reads its settings from the file that TAVIX_CONTROLLER_CONFIG names, so the flags
// reach it through a copy of that file.
Exit Session::writeSettingsCopy()
{
    char name[] = "/tmp/restclient-settings-XXXXXX";
    int const fd = ::mkstemp(name);
    if (fd < 0) return fail(localFailure, "cannot write a settings file in /tmp");
    ::close(fd);
    m_settingsCopy = name;
    std::ofstream file(m_settingsCopy, std::ios::trunc);
    auto line = [&file](char const* key, std::string const& value) {
        if (!value.empty()) file << key << " = " << value << "\n";
    };
    line("locator_url", m_settings.locatorUrl);
    line("auth_url", m_settings.authUrl);
    line("client_cert_file", m_settings.clientCertFile);
    line("ca_file", m_settings.caFile);
    line("common_name", m_settings.commonName);
    if (m_settings.disableTls) line("disable_tls", "true");
    // Present but empty still means "direct, whatever the environment says".
    if (m_settings.proxy) file << "proxy = " << *m_settings.proxy << "\n";
    if (m_settings.noProxy) file << "no_proxy = " << *m_settings.noProxy << "\n";
    if (!file.flush()) return fail(localFailure, "cannot write the settings file " + m_settingsCopy);
    ::setenv("TAVIX_CONTROLLER_CONFIG", m_settingsCopy.c_str(), 1);
    return ok;
}

Exit Session::authenticate(std::string const& appKey)
{
    std::string message;
    int const code = controller::AuthenticationServiceClient::AuthenticateController(appKey, message);
    if (code != 0) {
        return fail(authFailed,
                    "authentication of app key '" + appKey + "' failed: error " + std::to_string(code) + ": " + message);
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

Exit Session::locatorUrl(std::string& url) const
{
    if (m_settings.locatorUrl.empty()) {
        return fail(badUsage, "no Locator URL: set locator_url in " + controller::Settings::path() +
                                  " or give --locator-url");
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
