#include <tools/emulator/StorageRoutes.h>

#include <boost/filesystem/fstream.hpp>
#include <boost/filesystem/operations.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <sstream>

namespace fs = boost::filesystem;

namespace tavix::emulator {
namespace {

std::string objectLink(ServiceContext const& context, StoredObject const& object)
{
    return context.storageUrl + "/objects/" + object.id;
}

Json::Value resourceDocument(ServiceContext const& context, StoredObject const& object)
{
    std::string link = objectLink(context, object);
    Json::Value resource(Json::objectValue);
    resource["href"] = link;
    resource["contentLength"] = Json::UInt64(object.contentLength);
    resource["created"] = isoTime(object.created);
    resource["metadata"]["item"] = object.metadataItems;
    resource["mimeType"] = object.contentType;
    resource["name"] = object.name;
    resource["type"] = object.type;
    resource["url"]["href"] = link + "/url";
    resource["version"] = "1";
    resource["versions"]["href"] = link + "/versions";
    return resource;
}

Response listReply(ServiceContext const& context, RoutedRequest const& route, std::vector<StoredObject> const& objects)
{
    Json::Value document(Json::objectValue);
    document["href"] = context.baseUrl + std::string(route.request.target());
    document["resource"] = Json::Value(Json::arrayValue);
    for (StoredObject const& object : objects) document["resource"].append(resourceDocument(context, object));
    return jsonReply(route.request, http::status::ok, document);
}

Response notFound(ServiceContext const& context, RoutedRequest const& route, std::string const& message)
{
    return errorReply(route.request, context.errorStyle(), http::status::not_found, SubCode::notFound, message,
                      std::string(route.request.target()));
}

Response invalid(ServiceContext const& context, RoutedRequest const& route, std::string const& details)
{
    return errorReply(route.request, context.errorStyle(), http::status::bad_request, SubCode::invalidRequest,
                      "Invalid request", details);
}

// The "item" array of a store request, checked: each entry a key with a scalar value.
bool readMetadata(Json::Value const& resource, Json::Value& items, std::string& error)
{
    items = Json::Value(Json::arrayValue);
    if (!resource.isMember("metadata")) return true;
    Json::Value const& metadata = resource["metadata"];
    if (!metadata.isObject() || (metadata.isMember("item") && !metadata["item"].isArray())) {
        error = "\"metadata\" must be {\"item\": [...]}";
        return false;
    }
    for (Json::Value const& entry : metadata["item"]) {
        if (!entry.isObject() || !entry["key"].isString() || !entry.isMember("value") || entry["value"].isObject()
            || entry["value"].isArray() || entry["value"].isNull()) {
            error = "each metadata item needs a string \"key\" and a scalar \"value\"";
            return false;
        }
        items.append(entry);
    }
    return true;
}

// The object's "_md5checksum" in lowercase, or "" when it has none to check against.
std::string checksumOf(StoredObject const& object)
{
    for (Json::Value const& item : object.metadataItems) {
        if (item["key"].asString() != "_md5checksum" || !item["value"].isString()) continue;
        std::string checksum = item["value"].asString();
        std::transform(checksum.begin(), checksum.end(), checksum.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        return checksum;
    }
    return {};
}

} // namespace

StorageService::StorageService(fs::path const& dataDirectory)
    : m_store(dataDirectory), m_signer(dataDirectory / "signing.key")
{}

Response StorageService::accountRoute(ServiceContext const& context, RoutedRequest const& route,
                                      std::vector<std::string> const& rest)
{
    http::verb method = route.request.method();
    if (rest.empty() || (rest.size() == 1 && rest[0] == "files")) {
        if (method == http::verb::post && !rest.empty()) return store(context, route);
        if (method != http::verb::get)
            return methodNotAllowed(route.request, context.errorStyle(), rest.empty() ? "GET" : "GET, POST");
        return search(context, route);
    }
    if (rest[0] == "files" && rest.size() >= 3) {
        if (method != http::verb::get) return methodNotAllowed(route.request, context.errorStyle(), "GET");
        std::string scope = rest[1];
        std::string project = joined(rest.begin() + 2, rest.end());
        std::vector<StoredObject> found;
        for (StoredObject const& object : m_store.all())
            if (object.type == scope && object.project() == project) found.push_back(object);
        return listReply(context, route, found);
    }
    if (rest[0] == "project" && rest.size() >= 3) return projectRoute(context, route, rest);
    if (rest[0] == "objects" && rest.size() >= 2) return objectRoute(context, route, rest);
    return notFound(context, route, "No such storage resource");
}

Response StorageService::currentRoute(ServiceContext const& context, RoutedRequest const& route)
{
    if (route.request.method() != http::verb::get) return methodNotAllowed(route.request, context.errorStyle(), "GET");
    return listReply(context, route, m_store.all());
}

Response StorageService::store(ServiceContext const& context, RoutedRequest const& route)
{
    std::string error;
    auto body = parseJson(route.request.body(), error);
    if (!body)
        return errorReply(route.request, context.errorStyle(), http::status::bad_request, SubCode::malformedJson,
                          "Malformed JSON", error);
    Json::Value const& resource = (*body)["resource"];
    if (!body->isObject() || !resource.isObject()) return invalid(context, route, "expected {\"resource\": {...}}");
    if (!resource["name"].isString() || resource["name"].asString().empty())
        return invalid(context, route, "\"name\" must be a non-empty string");
    for (char const* key : {"type", "contentType"})
        if (resource.isMember(key) && !resource[key].isString())
            return invalid(context, route, fmt::format("\"{}\" must be a string", key));
    Json::Value items;
    if (!readMetadata(resource, items, error)) return invalid(context, route, error);

    StoredObject object = m_store.create(context.config.accountId, resource["name"].asString(),
                                         resource.get("type", "project").asString(),
                                         resource.get("contentType", "binary/octet-stream").asString(), items);
    return jsonReply(route.request, http::status::ok, signedUrlDocument(context, object, "upload"));
}

Response StorageService::search(ServiceContext const& context, RoutedRequest const& route)
{
    std::string type, prefix;
    bool byType = false;
    if (auto filter = queryValue(route.query, "_s")) {
        std::istringstream terms(*filter);
        for (std::string term; std::getline(terms, term, ',');) {
            auto equals = term.find("==");
            std::string key = equals == std::string::npos ? term : term.substr(0, equals);
            std::string value = equals == std::string::npos ? std::string() : term.substr(equals + 2);
            if (equals != std::string::npos && key == "type") {
                type = value;
                byType = true;
            } else if (equals != std::string::npos && key == "prefix") {
                prefix = value;
            } else {
                return invalid(context, route, "unknown search term \"" + term + "\"");
            }
        }
    }
    std::vector<StoredObject> found;
    for (StoredObject const& object : m_store.all())
        if ((!byType || object.type == type) && object.name.compare(0, prefix.size(), prefix) == 0)
            found.push_back(object);
    return listReply(context, route, found);
}

std::optional<StoredObject> StorageService::findInProject(std::string const& project, std::string const& object) const
{
    std::optional<StoredObject> newest;
    for (StoredObject const& candidate : m_store.all()) {
        if (candidate.project() != project) continue;
        if (object == "latest" || candidate.objectKey() == object || candidate.id == object) newest = candidate;
    }
    return newest;
}

Response StorageService::projectRoute(ServiceContext const& context, RoutedRequest const& route,
                                      std::vector<std::string> const& rest)
{
    if (route.request.method() != http::verb::get) return methodNotAllowed(route.request, context.errorStyle(), "GET");
    // …/project/<p>/<o>/url asks for a new upload URL of an existing object; a project may
    // itself contain "/", so the object is always the last segment before that.
    bool wantsUrl = rest.size() >= 4 && rest.back() == "url";
    auto objectAt = rest.end() - (wantsUrl ? 2 : 1);
    auto object = findInProject(joined(rest.begin() + 1, objectAt), *objectAt);
    if (!object) return notFound(context, route, "No such object");
    if (wantsUrl) return jsonReply(route.request, http::status::ok, signedUrlDocument(context, *object, "upload"));
    return jsonReply(route.request, http::status::ok, resourceDocument(context, *object));
}

Response StorageService::objectRoute(ServiceContext const& context, RoutedRequest const& route,
                                     std::vector<std::string> const& rest)
{
    auto object = m_store.find(rest[1]);
    if (!object || rest.size() > 3 || (rest.size() == 3 && rest[2] != "url" && rest[2] != "versions"))
        return notFound(context, route, "No such object");
    http::verb method = route.request.method();
    if (rest.size() == 2 && method == http::verb::delete_) {
        m_store.remove(object->id);
        Json::Value document(Json::objectValue);
        document["href"] = objectLink(context, *object);
        return jsonReply(route.request, http::status::ok, document);
    }
    if (method != http::verb::get)
        return methodNotAllowed(route.request, context.errorStyle(), rest.size() == 2 ? "GET, DELETE" : "GET");
    if (rest.size() == 2) return jsonReply(route.request, http::status::ok, resourceDocument(context, *object));
    if (rest[2] == "versions") return listReply(context, route, {*object});
    if (!object->uploaded) return notFound(context, route, "The object has no content yet");
    return jsonReply(route.request, http::status::ok, signedUrlDocument(context, *object, "download"));
}

Json::Value StorageService::signedUrlDocument(ServiceContext const& context, StoredObject const& object,
                                              std::string const& operation) const
{
    long long expires = now() + context.config.signedUrlLifetime.count();
    Json::Value document(Json::objectValue);
    document["href"] = objectLink(context, object);
    document["expires"] = isoTime(expires);
    document["url"] =
        fmt::format("{}/blobs/{}?{}", context.baseUrl, object.id, m_signer.signedQuery(operation, object.id, expires));
    return document;
}

Response StorageService::blobRoute(ServiceContext const& context, RoutedRequest const& route, std::string const& id)
{
    if (route.request.method() == http::verb::put) return upload(context, route, id);
    if (route.request.method() == http::verb::get) return download(context, route, id);
    return methodNotAllowed(route.request, context.errorStyle(), "GET, PUT");
}

std::optional<Response> StorageService::refuseUpload(ServiceContext const& context, RoutedRequest const& route,
                                                     std::string const& id) const
{
    if (!m_signer.verify(route.query, "upload", id))
        return errorReply(route.request, context.errorStyle(), http::status::forbidden, SubCode::badSignature,
                          "Request has expired or its signature does not match", "Ask for a new upload URL");
    if (!m_store.find(id)) return notFound(context, route, "No such object");
    auto const type = route.request[http::field::content_type];
    if (!boost::beast::iequals(type, kUploadContentType))
        return errorReply(route.request, context.errorStyle(), http::status::unsupported_media_type,
                          SubCode::unsupportedMediaType, "Unsupported Content-Type",
                          fmt::format("Send the body as {}, not \"{}\"", kUploadContentType, std::string(type)));
    return std::nullopt;
}

fs::path StorageService::incomingPath(std::string const& id)
{
    bool plainId =
        !id.empty() && std::all_of(id.begin(), id.end(), [](unsigned char c) { return std::isalnum(c) != 0; });
    return m_store.incomingPath(plainId ? id : "upload");
}

Response StorageService::commitUpload(ServiceContext const& context, RoutedRequest const& route, std::string const& id,
                                      StreamedBody const& body)
{
    boost::system::error_code error;
    auto object = m_store.find(id);
    if (!object) {
        fs::remove(body.path, error);
        return notFound(context, route, "No such object");
    }
    std::string const expected = checksumOf(*object);
    if (!expected.empty() && expected != body.md5) {
        fs::remove(body.path, error);
        return errorReply(route.request, context.errorStyle(), http::status::bad_request, SubCode::badChecksum,
                          "The body does not match its _md5checksum",
                          fmt::format("expected MD5 {}, received {} bytes with MD5 {}", expected, body.size, body.md5));
    }
    if (!m_store.commitBody(id, body.path, error))
        return errorReply(route.request, context.errorStyle(), http::status::internal_server_error, SubCode::internal,
                          "Could not store the body", error.message());
    return textReply(route.request, 200, {}, {});
}

Response StorageService::upload(ServiceContext const& context, RoutedRequest const& route, std::string const& id)
{
    if (auto refused = refuseUpload(context, route, id)) return *refused;
    fs::path const incoming = incomingPath(id);
    BodySink sink;
    StreamedBody body;
    std::string error;
    bool stored = sink.open(incoming.string(), error);
    if (stored) {
        sink.write(route.request.body().data(), route.request.body().size());
        stored = sink.finish(body, error);
    }
    if (!stored) {
        boost::system::error_code ignored;
        fs::remove(incoming, ignored);
        return errorReply(route.request, context.errorStyle(), http::status::internal_server_error, SubCode::internal,
                          "Could not store the body", error);
    }
    return commitUpload(context, route, id, body);
}

Response StorageService::download(ServiceContext const& context, RoutedRequest const& route, std::string const& id)
{
    if (!m_signer.verify(route.query, "download", id))
        return errorReply(route.request, context.errorStyle(), http::status::forbidden, SubCode::badSignature,
                          "Request has expired or its signature does not match", "Ask for a new download URL");
    auto object = m_store.find(id);
    if (!object || !object->uploaded) return notFound(context, route, "No such object");
    // Streamed by the server from the stored file: an object of any size in constant memory.
    Response reply = textReply(route.request, 200, {}, object->contentType);
    reply.set(kBodyFileField, m_store.bodyPath(id).string());
    return reply;
}

} // namespace tavix::emulator
