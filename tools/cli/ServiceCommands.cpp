#include <tools/cli/Blocking.h>
#include <tools/cli/Commands.h>

#include <restclient/detail/MaskToken.h>

#include <restclient/account/AccountUserClient.h>
#include <restclient/geo/GeoClient.h>
#include <restclient/httplite/RegistrationClient.h>
#include <restclient/storage/FileUploader.h>

#include <tavix/controller/OAuthHelper.h>

#include <fmt/format.h>

#include <memory>

namespace tavix::cli {

namespace {

using namespace tavix::restclient;

Exit token(Session& session, std::string const& appKey)
{
    if (Exit const e = Session::authenticate(appKey); e != ok) return e;
    controller::AuthTokenPtr const record = controller::OAuthHelper::Instance().GetAuthToken(appKey);
    long const expires = record->GetIssued() + record->GetDuration();
    Json::Value document;
    document["appKey"] = appKey;
    document["token"] = restclient::detail::maskToken(record->GetToken());
    document["tokenType"] = record->GetTokenType();
    document["scope"] = record->GetScope();
    document["issued"] = storage::ISO8601Time(record->GetIssued());
    document["expires"] = storage::ISO8601Time(expires);
    document["duration"] = Json::Int64(record->GetDuration());
    session.out.print(document, [&](std::ostream& os) { printFields(os, document); });
    return ok;
}

void printEndpoints(std::ostream& os, std::vector<locator::Endpoint> const& endpoints)
{
    for (locator::Endpoint const& e : endpoints) {
        os << fmt::format("{:<12} {:<6} {}\n", e.serviceName.value, e.endPointURLType.value, e.endPointURL.value);
    }
}

Exit locate(Session& session, std::string const& service)
{
    if (!service.empty()) {
        locator::LocationResponse located;
        if (Exit const e = session.location(service, located); e != ok) return e;
        session.out.print(toJson(located.endpoint), [&](std::ostream& os) { printEndpoints(os, {located.endpoint}); });
        return ok;
    }
    std::string url, bearer;
    Address a;
    if (Exit const e = session.locatorUrl(url); e != ok) return e;
    if (Exit const e = split(url, a); e != ok) return e;
    if (Exit const e = session.token(bearer); e != ok) return e;
    Reply<locator::LocationsResponse> reply;
    locator::LocationsClient client(session.io, reply.callback(), a.host, a.port, bearer, a.tls, a.path);
    if (Exit const e = await(session.io, client.getLocations(), reply, "locations", session.out); e != ok) return e;
    Json::Value document(Json::arrayValue);
    for (locator::Endpoint const& endpoint : reply.response.endpoints) document.append(toJson(endpoint));
    session.out.print(document, [&](std::ostream& os) { printEndpoints(os, reply.response.endpoints); });
    return ok;
}

Exit account(Session& session)
{
    account::AccountResponse current;
    if (Exit const e = session.currentAccount(current); e != ok) return e;
    Json::Value document;
    document["storageURL"] = current.storageURL;
    document["usersURL"] = current.usersURL;
    session.out.print(document, [&](std::ostream& os) { printFields(os, document); });
    return ok;
}

Exit fetchUser(Session& session, std::string const& url, std::string const& token, Json::Value& user)
{
    Reply<account::AccountUserResponse> reply;
    account::AccountUserClient client(session.io, reply.callback(), url, token);
    if (Exit const e = await(session.io, client.getUser(), reply, "user", session.out); e != ok) return e;
    account::AccountUserResponse const& r = reply.response;
    user["href"] = url;
    user["eMail"] = r.eMail;
    user["firstName"] = r.firstName;
    user["lastName"] = r.lastName;
    user["extUser"] = r.extUser;
    user["isOwner"] = r.isOwner;
    return ok;
}

// Every user of the account, or the one with `id`.
Exit users(Session& session, std::string const& id)
{
    account::AccountResponse current;
    std::string bearer;
    if (Exit const e = session.currentAccount(current); e != ok) return e;
    if (current.usersURL.empty()) return fail(serviceError, "the current account has no \"users\" link");
    if (Exit const e = session.token(bearer); e != ok) return e;

    std::vector<std::string> urls;
    if (!id.empty()) {
        urls.push_back(current.usersURL + "/" + id);
    } else {
        Reply<account::AccountUserListResponse> list;
        account::AccountUserListClient client(session.io, list.callback(), current.usersURL, bearer);
        if (Exit const e = await(session.io, client.getUserList(), list, "users", session.out); e != ok) return e;
        urls = list.response.userURLs;
    }
    Json::Value document(Json::arrayValue);
    for (std::string const& url : urls) {
        if (Exit const e = fetchUser(session, url, bearer, document.append(Json::objectValue)); e != ok) return e;
    }
    session.out.print(id.empty() ? document : document[0], [&](std::ostream& os) {
        for (Json::Value const& u : document) {
            os << fmt::format("{:<28} {} {}{}{}\n", u["eMail"].asString(), u["firstName"].asString(),
                              u["lastName"].asString(), u["isOwner"].asBool() ? " (owner)" : "",
                              u["extUser"].asBool() ? " (external)" : "");
        }
    });
    return ok;
}

Exit geo(Session& session)
{
    std::string url, bearer;
    Address a;
    if (Exit const e = session.serviceUrl(session.options.geoUrl, "GEO", url); e != ok) return e;
    if (Exit const e = split(url, a); e != ok) return e;
    if (Exit const e = session.token(bearer); e != ok) return e;
    Reply<geo::GeoResponse, veltrun::BasicErrorResponse> reply;
    geo::GeoClient client(session.io, reply.callback(), url, bearer, a.tls);
    if (Exit const e = await(session.io, client.getGeo(), reply, "geo", session.out); e != ok) return e;
    Json::Value const document = fieldsToJson(reply.response.country, reply.response.countryIso);
    session.out.print(document, [&](std::ostream& os) { printFields(os, document); });
    return ok;
}

// Sends one registration request; `send` starts it on the client.
template <typename Send>
Exit registration(Session& session, std::string const& what, Send send)
{
    std::string url, bearer;
    Address a;
    if (Exit const e = session.serviceUrl(session.options.httpliteUrl, "HTTPLITE", url); e != ok) return e;
    if (Exit const e = split(url, a); e != ok) return e;
    if (Exit const e = session.token(bearer); e != ok) return e;
    Reply<httplite::RegistrationResponse> reply;
    httplite::RegistrationClient client(session.io, reply.callback(), a.host, a.port, bearer, a.tls, a.path);
    if (Exit const e = await(session.io, send(client), reply, what, session.out); e != ok) return e;
    httplite::RegistrationResponse const& r = reply.response;
    Json::Value const document = fieldsToJson(r.activeCallCount, r.contact, r.contactStatus, r.createdTime,
                                              r.expiryTime, r.ip, r.lastUpdateTime, r.linkKey, r.port, r.validSeconds);
    session.out.print(document, [&](std::ostream& os) { printFields(os, document); });
    return ok;
}

} // namespace

void addServiceCommands(CLI::App& app, Session& session, Run& run)
{
    auto const appKey = std::make_shared<std::string>();
    CLI::App* sub = app.add_subcommand("token", "Authenticate the controller once and show the token record");
    sub->add_option("APP_KEY", *appKey, "application key (default: --app-key)");
    onParsed(sub, run,
             [&session, appKey] { return token(session, appKey->empty() ? session.options.appKey : *appKey); });

    auto const service = std::make_shared<std::string>();
    sub = app.add_subcommand("locate", "Ask the Locator service for one service's endpoint, or for all");
    sub->add_option("SERVICE", *service, "service name, e.g. ACCOUNT, STORAGE, GEO, HTTPLITE");
    onParsed(sub, run, [&session, service] { return locate(session, *service); });

    sub = app.add_subcommand("account", "Show the current account's service links (storage, users)");
    onParsed(sub, run, [&session] { return account(session); });

    auto const userId = std::make_shared<std::string>();
    sub = app.add_subcommand("users", "List the account's users, or show one");
    sub->add_option("ID", *userId, "user id");
    onParsed(sub, run, [&session, userId] { return users(session, *userId); });

    sub = app.add_subcommand("geo", "Ask the geo service in which country the controller is");
    onParsed(sub, run, [&session] { return geo(session); });

    auto const request = std::make_shared<httplite::RegistrationRequest>();
    sub = app.add_subcommand("register", "Record the address and port at which the controller can be reached");
    sub->add_option("--ip", request->ip.value, "address")->required();
    sub->add_option("--port", request->port.value, "port")->required()->check(CLI::Range(1, 65535));
    onParsed(sub, run, [&session, request] {
        return registration(session, "register", [&](auto& client) { return client.updateRegistration(*request); });
    });

    sub = app.add_subcommand("unregister", "Withdraw the controller's registration");
    onParsed(sub, run, [&session] {
        return registration(session, "unregister", [](auto& client) { return client.deleteRegistration(); });
    });
}

} // namespace tavix::cli
