#include <tools/cli/Commands.h>

#include <tools/cli/Exchange.h>

#include <restclient/account/AccountClient.h>
#include <restclient/account/AccountUserClient.h>
#include <restclient/account/SplitUrl.h>
#include <restclient/geo/GeoClient.h>
#include <restclient/httplite/RegistrationClient.h>
#include <restclient/locator/LocationClient.h>
#include <restclient/storage/ResourceClient.h>
#include <restclient/storage/StoreClient.h>

#include <boost/filesystem.hpp>

#include <iostream>

namespace tavix::cli {

namespace {

using namespace tavix::restclient;

struct Address {
    std::string host;
    unsigned int port = 0;
    bool tls = false;
    std::string path;
    std::string accountPart;
};

bool split(std::string const& url, Address& address)
{
    if (account::split_URL(url, address.host, address.port, address.tls, address.path, address.accountPart) &&
        !address.host.empty()) {
        return true;
    }
    std::cerr << "not an absolute URL: " << url << "\n";
    return false;
}

// Asks the locator for one service's endpoint; empty when it could not be had.
std::string locate(Options const& options, std::string const& locatorUrl, std::string const& service)
{
    Address a;
    if (!split(locatorUrl, a)) return {};
    boost::asio::io_context io;
    Outcome<locator::LocationResponse> o;
    locator::LocationClient client(io, o.callback(), a.host, a.port, options.token, a.tls, a.path);
    if (!finish(io, client.getLocation(service), o, "locate " + service)) return {};
    locator::Endpoint const& e = o.response.endpoint;
    std::cout << "endpoint: " << e.serviceName.value << " " << e.endPointURLType.value << " "
              << e.endPointURL.value << "\n";
    return e.endPointURL.value;
}

int locateCommand(Options const& options, std::vector<std::string> const& args)
{
    return locate(options, args[0], args[1]).empty() ? 1 : 0;
}

int locationsCommand(Options const& options, std::vector<std::string> const& args)
{
    Address a;
    if (!split(args[0], a)) return 1;
    boost::asio::io_context io;
    Outcome<locator::LocationsResponse> o;
    locator::LocationsClient client(io, o.callback(), a.host, a.port, options.token, a.tls, a.path);
    if (!finish(io, client.getLocations(), o, "locations")) return 1;
    for (auto const& e : o.response.endpoints) {
        std::cout << "endpoint: " << e.serviceName.value << " " << e.endPointURLType.value << " "
                  << e.endPointURL.value << "\n";
    }
    return 0;
}

// The road a device takes to its storage: locator → Account service → the account's links.
int discoverCommand(Options const& options, std::vector<std::string> const& args)
{
    std::string const accountService = locate(options, args[0], "ACCOUNT");
    if (accountService.empty()) return 1;
    Address a;
    if (!split(accountService + "/v1/rest", a)) return 1;
    boost::asio::io_context io;
    Outcome<account::AccountResponse> o;
    account::AccountClient client(io, o.callback(), a.host, a.port, options.token, a.tls, a.path);
    if (!finish(io, client.getCurrent(), o, "current account")) return 1;
    std::cout << "storage: " << o.response.storageURL << "\n"
              << "users: " << o.response.usersURL << "\n";
    return o.response.storageURL.empty() ? 1 : 0;
}

int usersCommand(Options const& options, std::vector<std::string> const& args)
{
    boost::asio::io_context io;
    Outcome<account::AccountUserListResponse> list;
    account::AccountUserListClient client(io, list.callback(), args[0], options.token);
    if (!finish(io, client.getUserList(), list, "users")) return 1;
    for (std::string const& url : list.response.userURLs) {
        Outcome<account::AccountUserResponse> user;
        account::AccountUserClient userClient(io, user.callback(), url, options.token);
        if (!finish(io, userClient.getUser(), user, "user")) return 1;
        std::cout << "user: " << user.response.eMail << " " << user.response.firstName << " "
                  << user.response.lastName << (user.response.isOwner ? " (owner)" : "") << "\n";
    }
    return 0;
}

int storeCommand(Options const& options, std::vector<std::string> const& args)
{
    Address a;
    if (!split(args[0], a)) return 1;
    boost::filesystem::path const file(args[1]);
    storage::StoreRequest request;
    request.name.value = options.name.empty() ? file.filename().string() : options.name;
    request.type.value = options.type;
    request.metadata.add<std::string>("_filename", file.filename().string());
    for (auto const& [key, value] : options.meta) request.metadata.add<std::string>(key, value);

    boost::asio::io_context io;
    Outcome<storage::StoreResponse> o;
    storage::StoreClient client(io, o.callback(), a.host, a.port, options.token, a.accountPart, a.tls, a.path);
    if (!finish(io, client.store(request), o, "store")) return 1;
    std::cout << "href: " << o.response.href.value << "\n"
              << "expires: " << o.response.expires.value << "\n"
              << "url: " << o.response.url.value << "\n";
    return 0;
}

int resourcesCommand(Options const& options, std::vector<std::string> const& args)
{
    Address a;
    if (!split(args[0], a)) return 1;
    boost::asio::io_context io;
    Outcome<storage::ResourcesResponse> o;
    storage::ResourceSearchClient client(io, o.callback(), a.host, a.port, options.token, a.accountPart, a.tls,
                                         a.path);
    bool const byType = options.type != "project" && !options.type.empty();
    boost::system::error_code const started =
        byType && !options.project.empty() ? client.searchTypeProject(options.type, options.project)
        : byType                           ? client.searchType(options.type)
        : !options.project.empty()         ? client.searchProject(options.project)
                                           : client.search();
    if (!finish(io, started, o, "resources")) return 1;
    for (storage::Resource const& r : o.response.resources) {
        std::cout << "resource: " << r.name.value << " type " << r.type.value << ", " << r.contentLength.value
                  << " bytes, created " << r.created.value << ", " << r.metadata.size() << " metadata entries\n";
    }
    std::cout << o.response.resources.size() << " resources\n";
    return 0;
}

int geoCommand(Options const& options, std::vector<std::string> const& args)
{
    Address a;
    if (!split(args[0], a)) return 1;
    boost::asio::io_context io;
    Outcome<geo::GeoResponse, veltrun::BasicErrorResponse> o;
    geo::GeoClient client(io, o.callback(), args[0], options.token, a.tls);
    if (!finish(io, client.getGeo(), o, "geo")) return 1;
    std::cout << "country: " << o.response.country.value << " (" << o.response.countryIso.value << ")\n";
    return 0;
}

// Sends one registration request; `send` starts it on the client.
template <typename Send>
bool registration(Options const& options, std::string const& url, std::string const& what, Send send,
                  httplite::RegistrationResponse& response)
{
    Address a;
    if (!split(url, a)) return false;
    boost::asio::io_context io;
    Outcome<httplite::RegistrationResponse> o;
    httplite::RegistrationClient client(io, o.callback(), a.host, a.port, options.token, a.tls, a.path);
    if (!finish(io, send(client), o, what)) return false;
    response = o.response;
    return true;
}

int registerCommand(Options const& options, std::vector<std::string> const& args)
{
    httplite::RegistrationRequest request;
    request.ip.value = args[1];
    request.port.value = std::atoi(args[2].c_str());
    httplite::RegistrationResponse r;
    auto const send = [&request](httplite::RegistrationClient& c) { return c.updateRegistration(request); };
    if (!registration(options, args[0], "register", send, r)) return 1;
    std::cout << "registered: " << r.ip.value << ":" << r.port.value << ", expires " << r.expiryTime.value << "\n";
    return 0;
}

int unregisterCommand(Options const& options, std::vector<std::string> const& args)
{
    httplite::RegistrationResponse r;
    auto const send = [](httplite::RegistrationClient& c) { return c.deleteRegistration(); };
    if (!registration(options, args[0], "unregister", send, r)) return 1;
    std::cout << "unregistered\n";
    return 0;
}

} // namespace

std::vector<CommandInfo> const& commands()
{
    static std::vector<CommandInfo> const all = {
        {"locate", "locate <locator-url> <service>", 2, locateCommand},
        {"locations", "locations <locator-url>", 1, locationsCommand},
        {"discover", "discover <locator-url>            locator, then the account's storage link", 1,
         discoverCommand},
        {"users", "users <users-url>", 1, usersCommand},
        {"store", "store <storage-url> <file>         [--name N] [--type T] [--meta k=v ...]", 2, storeCommand},
        {"resources", "resources <storage-url>            [--type T] [--project P]", 1, resourcesCommand},
        {"geo", "geo <geo-url>", 1, geoCommand},
        {"register", "register <httplite-url> <ip> <port>", 3, registerCommand},
        {"unregister", "unregister <httplite-url>", 1, unregisterCommand},
    };
    return all;
}

} // namespace tavix::cli
