// One run of the tool: the settings (the controller settings file with the flags over it), the
// bearer token, and the road to each service's URL (locator → Account → the account's links),
// found the way the uploader finds them.
#pragma once

#include <tools/cli/Output.h>

#include <restclient/account/AccountClient.h>
#include <restclient/detail/ServiceAddress.h>
#include <restclient/locator/LocationClient.h>

#include <tavix/controller/Settings.h>

#include <boost/asio/io_context.hpp>

#include <string>

namespace tavix::cli {

inline constexpr char const* kDefaultAppKey = "restclient-cli";

struct Options {
    std::string config; // the settings file; empty: TAVIX_CONTROLLER_CONFIG or its default
    std::string locatorUrl, authUrl, caFile, clientCert;     // over the settings file's values
    std::string accountUrl, storageUrl, geoUrl, httpliteUrl; // instead of asking the services
    std::string token; // --token, else the first line of --token-file, else $RESTCLIENT_TOKEN
    std::string tokenFile;
    std::string appKey = kDefaultAppKey;
    std::string queueSpool, queueRate, queueConcurrency; // queue_spool, queue_rate, queue_concurrency
    double progressSeconds = 5;                          // between plain progress lines when stderr is not a terminal
};

// A service URL cut into the pieces the host-and-port clients take, as the uploader cuts it.
using Address = restclient::detail::ServiceAddress;

// badUsage (said on stderr) when `url` is not an absolute URL.
Exit split(std::string const& url, Address& address);

class Session {
public:
    Session() = default;
    Session(Session const&) = delete;
    Session& operator=(Session const&) = delete;

    // Takes the token from its source; reads the settings file and lays the flags that change
    // settings the library reads itself (endpoints, CA, client certificate) over it, in-process.
    Exit begin();
    controller::Settings const& settings() const { return m_settings; }

    // Authenticates `appKey` once and stores its token in the process's token store.
    static Exit authenticate(std::string const& appKey);
    // --token, else a token for --app-key.
    Exit token(std::string& token);
    // Puts a given token in the process's token store under the app key, where the uploader
    // looks for it; without one the uploader authenticates itself.
    void storeGivenToken() const;

    Exit location(std::string const& service, restclient::locator::LocationResponse& response);
    // The URL the locator gives for `service`, unless `given` already names one.
    Exit serviceUrl(std::string const& given, std::string const& service, std::string& url);
    Exit currentAccount(restclient::account::AccountResponse& account);
    Exit storageUrl(std::string& url);
    // The settings' locator URL, its last "soap" read as "rest" (as the uploader does).
    Exit locatorUrl(std::string& url) const;

    Options options;
    Output out;
    boost::asio::io_context io;

private:
    Exit readToken();

    controller::Settings m_settings;
    std::string m_token;
};

} // namespace tavix::cli
