#include <tools/cli/Blocking.h>
#include <tools/cli/Commands.h>

#include <restclient/storage/ResourceClient.h>
#include <restclient/storage/StoreClient.h>

#include <fmt/format.h>

#include <memory>

namespace tavix::cli {

namespace {

using namespace tavix::restclient;

// Fields, links, then one "metadata.<key>: <value>" line per entry.
void printResource(std::ostream& os, Json::Value const& resource)
{
    printFields(os, resource);
    for (Json::Value const& item : resource["metadata"]["item"]) {
        os << "metadata." << item["key"].asString() << ": " << item["value"].asString() << "\n";
    }
}

void printResourceTable(std::ostream& os, Json::Value const& list)
{
    os << fmt::format("{:<28} {:<10} {:>10} {:<25} {}\n", "NAME", "TYPE", "BYTES", "CREATED", "DOWNLOAD LINK");
    for (Json::Value const& r : list["resource"]) {
        os << fmt::format("{:<28} {:<10} {:>10} {:<25} {}\n", r["name"].asString(), r["type"].asString(),
                          r["contentLength"].asUInt(), r["created"].asString(), r["url"]["href"].asString());
    }
}

Json::Value resourcesToJson(storage::ResourcesResponse const& response)
{
    JsonWriter writer;
    writer.startObject();
    writer.write("href", response.href.value);
    writer.startArray("resource");
    for (storage::Resource const& resource : response.resources) resource.serialize(writer);
    writer.endArray();
    writer.endObject();
    return toJson(writer);
}

// The storage URL cut for the clients, and the token.
Exit storageAddress(Session& session, Address& a, std::string& bearer)
{
    std::string url;
    if (Exit const e = session.storageUrl(url); e != ok) return e;
    if (Exit const e = split(url, a); e != ok) return e;
    return session.token(bearer);
}

struct ResourceQuery {
    std::string project, object, type, scope = "project";
};

// get and latest: one resource.
Exit resource(Session& session, ResourceQuery const& q, bool latest)
{
    Address a;
    std::string bearer;
    if (Exit const e = storageAddress(session, a, bearer); e != ok) return e;
    Reply<storage::ResourceResponse> reply;
    storage::ResourceClient client(session.io, reply.callback(), a.host, a.port, bearer, a.accountPart, a.tls, a.path);
    auto const started = latest ? client.latest(q.project) : client.get(q.project, q.object);
    if (Exit const e = await(session.io, started, reply, "resource", session.out); e != ok) return e;
    Json::Value const document = toJson(reply.response.resource);
    session.out.print(document, [&](std::ostream& os) { printResource(os, document); });
    return ok;
}

// Resource lists: current, search and list; `start` sends the request on the client.
template <typename Client, typename Start>
Exit resources(Session& session, std::string const& what, Start start)
{
    Address a;
    std::string bearer;
    if (Exit const e = storageAddress(session, a, bearer); e != ok) return e;
    Reply<storage::ResourcesResponse> reply;
    std::unique_ptr<Client> client;
    if constexpr (std::is_same_v<Client, storage::ResourceCurrentClient>) {
        client = std::make_unique<Client>(session.io, reply.callback(), a.host, a.port, bearer, a.tls, a.path);
    } else {
        client = std::make_unique<Client>(session.io, reply.callback(), a.host, a.port, bearer, a.accountPart, a.tls,
                                          a.path);
    }
    if (Exit const e = await(session.io, start(*client), reply, what, session.out); e != ok) return e;
    Json::Value const document = resourcesToJson(reply.response);
    session.out.print(document, [&](std::ostream& os) { printResourceTable(os, document); });
    return ok;
}

Exit search(Session& session, ResourceQuery const& q)
{
    return resources<storage::ResourceSearchClient>(session, "search", [&q](auto& client) {
        if (!q.type.empty() && !q.project.empty()) return client.searchTypeProject(q.type, q.project);
        if (!q.type.empty()) return client.searchType(q.type);
        if (!q.project.empty()) return client.searchProject(q.project);
        return client.search();
    });
}

Exit downloadUrl(Session& session, std::string const& link)
{
    std::string bearer;
    if (Exit const e = session.token(bearer); e != ok) return e;
    Reply<storage::URLResponse> reply;
    storage::ResourceDownloadClient client(session.io, reply.callback());
    if (Exit const e = await(session.io, client.getDownloadURL(link, bearer), reply, "download URL", session.out);
        e != ok) {
        return e;
    }
    Json::Value const document = fieldsToJson(reply.response.href, reply.response.expires, reply.response.url);
    session.out.print(document, [&](std::ostream& os) { printFields(os, document); });
    return ok;
}

// get and delete of a stored object; `start` sends the request on the client.
template <typename Start>
Exit store(Session& session, std::string const& what, Start start)
{
    Address a;
    std::string bearer;
    if (Exit const e = storageAddress(session, a, bearer); e != ok) return e;
    Reply<storage::StoreResponse> reply;
    storage::StoreClient client(session.io, reply.callback(), a.host, a.port, bearer, a.accountPart, a.tls, a.path);
    if (Exit const e = await(session.io, start(client), reply, what, session.out); e != ok) return e;
    Json::Value const document = fieldsToJson(reply.response.href, reply.response.expires, reply.response.url);
    session.out.print(document, [&](std::ostream& os) { printFields(os, document); });
    return ok;
}

} // namespace

void addStorageCommands(CLI::App& app, Session& session, Run& run)
{
    auto const q = std::make_shared<ResourceQuery>();
    CLI::App* group = app.add_subcommand("resources", "Query the Storage service's catalogue");
    group->require_subcommand(1);

    CLI::App* sub = group->add_subcommand("get", "Show one stored object");
    sub->add_option("PROJECT", q->project, "project")->required();
    sub->add_option("OBJECT", q->object, "object name or id")->required();
    onParsed(sub, run, [&session, q] { return resource(session, *q, false); });

    sub = group->add_subcommand("latest", "Show a project's newest object");
    sub->add_option("PROJECT", q->project, "project")->required();
    onParsed(sub, run, [&session, q] { return resource(session, *q, true); });

    sub = group->add_subcommand("current", "List what the storage base holds");
    onParsed(sub, run, [&session] {
        return resources<storage::ResourceCurrentClient>(session, "current", [](auto& c) { return c.current(); });
    });

    sub = group->add_subcommand("search", "Search the account's objects by type and name prefix");
    sub->add_option("--type", q->type, "object type");
    sub->add_option("--project", q->project, "name prefix");
    onParsed(sub, run, [&session, q] { return search(session, *q); });

    sub = group->add_subcommand("list", "List a project's objects");
    sub->add_option("PROJECT", q->project, "project")->required();
    sub->add_option("--scope", q->scope, "list scope")->capture_default_str();
    onParsed(sub, run, [&session, q] {
        return resources<storage::ResourceSearchClient>(session, "list",
                                                        [&q](auto& c) { return c.list(q->scope, q->project); });
    });

    auto const link = std::make_shared<std::string>();
    sub = app.add_subcommand("download-url", "Ask for a pre-signed download URL of a stored object");
    sub->add_option("LINK", *link, "the object's download link (\"url\" of a resource)")->required();
    onParsed(sub, run, [&session, link] { return downloadUrl(session, *link); });

    group = app.add_subcommand("store", "Stored objects: a new upload URL, or deletion");
    group->require_subcommand(1);
    sub = group->add_subcommand("get", "Ask for a new upload URL of an existing object");
    sub->add_option("PROJECT", q->project, "project")->required();
    sub->add_option("OBJECT", q->object, "object name or id")->required();
    onParsed(sub, run, [&session, q] {
        return store(session, "store get", [&q](auto& c) { return c.get(q->project, q->object); });
    });
    sub = group->add_subcommand("delete", "Delete a stored object");
    sub->add_option("HREF", q->object, "the object's link (\"href\" of a resource)")->required();
    onParsed(sub, run,
             [&session, q] { return store(session, "store delete", [&q](auto& c) { return c.remove(q->object); }); });
}

} // namespace tavix::cli
