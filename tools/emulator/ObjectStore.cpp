#include <tools/emulator/ObjectStore.h>

#include <tools/emulator/PrivateFiles.h>

#include <tools/emulator/Routing.h>

#include <boost/filesystem/fstream.hpp>
#include <boost/filesystem/operations.hpp>

#include <algorithm>
#include <sstream>

namespace fs = boost::filesystem;

namespace tavix::emulator {
namespace {

Json::Value recordOf(StoredObject const& object)
{
    Json::Value record(Json::objectValue);
    record["id"] = object.id;
    record["sequence"] = Json::UInt64(object.sequence);
    record["accountId"] = object.accountId;
    record["name"] = object.name;
    record["type"] = object.type;
    record["contentType"] = object.contentType;
    record["metadata"]["item"] = object.metadataItems;
    record["created"] = Json::Int64(object.created);
    record["uploaded"] = object.uploaded;
    record["contentLength"] = Json::UInt64(object.contentLength);
    return record;
}

std::optional<StoredObject> objectOf(Json::Value const& record)
{
    if (!record.isObject() || !record["id"].isString() || !record["sequence"].isUInt64() || !record["name"].isString()
        || !record["created"].isInt64() || !record["contentLength"].isUInt64())
        return std::nullopt;
    StoredObject object;
    object.id = record["id"].asString();
    object.sequence = record["sequence"].asUInt64();
    object.accountId = record["accountId"].asString();
    object.name = record["name"].asString();
    object.type = record["type"].asString();
    object.contentType = record["contentType"].asString();
    object.metadataItems =
        record["metadata"]["item"].isArray() ? record["metadata"]["item"] : Json::Value(Json::arrayValue);
    object.created = record["created"].asInt64();
    object.uploaded = record["uploaded"].asBool();
    object.contentLength = record["contentLength"].asUInt64();
    return object;
}

} // namespace

std::string StoredObject::project() const
{
    auto slash = name.rfind('/');
    return slash == std::string::npos ? name : name.substr(0, slash);
}

std::string StoredObject::objectKey() const
{
    auto slash = name.rfind('/');
    return slash == std::string::npos ? id : name.substr(slash + 1);
}

ObjectStore::ObjectStore(fs::path directory) : m_objects(directory / "objects"), m_incoming(directory / "incoming")
{
    makePrivateDirectory(m_objects);
    makePrivateDirectory(m_incoming);
    // Bodies that were still arriving when the last run ended belong to nobody.
    for (fs::directory_iterator it(m_incoming), end; it != end; ++it) fs::remove(it->path());
    load();
}

void ObjectStore::load()
{
    for (fs::directory_iterator it(m_objects), end; it != end; ++it) {
        // A record whose writing was cut short: the record it was to replace is still there.
        if (it->path().extension() == ".tmp") fs::remove(it->path());
        if (it->path().extension() != ".json") continue;
        fs::ifstream in(it->path());
        std::stringstream text;
        text << in.rdbuf();
        std::string error;
        auto record = parseJson(text.str(), error);
        std::optional<StoredObject> object;
        try {
            object = record ? objectOf(*record) : std::nullopt;
        } catch (Json::Exception const&) {
            // A hand-edited record of the wrong shape is skipped like an unreadable one.
        }
        if (!object) continue;
        m_nextSequence = std::max(m_nextSequence, object->sequence + 1);
        rollForward(*object);
        m_byId[object->id] = *object;
    }
}

void ObjectStore::rollForward(StoredObject& object)
{
    // A body is renamed into place only once it is whole and checked, so one that is there is
    // the object's content even when the process ended before its record said so.
    boost::system::error_code error;
    auto const size = fs::file_size(bodyPath(object.id), error);
    if (error || (object.uploaded && object.contentLength == size)) return;
    object.uploaded = true;
    object.contentLength = size;
    save(object);
}

void ObjectStore::save(StoredObject const& object)
{
    writePrivateFile(m_objects / (object.id + ".json"), compactJson(recordOf(object)));
}

StoredObject ObjectStore::create(std::string const& accountId, std::string const& name, std::string const& type,
                                 std::string const& contentType, Json::Value const& metadataItems)
{
    StoredObject object;
    do {
        object.id = randomHex(8);
    } while (m_byId.count(object.id) != 0);
    object.sequence = m_nextSequence++;
    object.accountId = accountId;
    object.name = name;
    object.type = type;
    object.contentType = contentType;
    object.metadataItems = metadataItems;
    object.created = now();
    save(object);
    m_byId[object.id] = object;
    return object;
}

std::optional<StoredObject> ObjectStore::find(std::string const& id) const
{
    auto it = m_byId.find(id);
    if (it == m_byId.end()) return std::nullopt;
    return it->second;
}

std::vector<StoredObject> ObjectStore::all() const
{
    std::vector<StoredObject> objects;
    for (auto const& entry : m_byId) objects.push_back(entry.second);
    std::sort(objects.begin(), objects.end(),
              [](StoredObject const& a, StoredObject const& b) { return a.sequence < b.sequence; });
    return objects;
}

bool ObjectStore::remove(std::string const& id)
{
    if (m_byId.erase(id) == 0) return false;
    boost::system::error_code ignored;
    fs::remove(m_objects / (id + ".json"), ignored);
    fs::remove(bodyPath(id), ignored);
    return true;
}

fs::path ObjectStore::incomingPath(std::string const& id)
{
    return m_incoming / (id + "." + std::to_string(m_nextIncoming++) + ".part");
}

std::optional<StoredObject> ObjectStore::commitBody(std::string const& id, fs::path const& incoming,
                                                    boost::system::error_code& error)
{
    auto it = m_byId.find(id);
    if (it == m_byId.end()) {
        fs::remove(incoming, error);
        error = make_error_code(boost::system::errc::no_such_file_or_directory);
        return std::nullopt;
    }
    auto size = fs::file_size(incoming, error);
    if (error) return std::nullopt;
    fs::rename(incoming, bodyPath(id), error);
    if (error) return std::nullopt;
    it->second.uploaded = true;
    it->second.contentLength = size;
    save(it->second);
    return it->second;
}

fs::path ObjectStore::bodyPath(std::string const& id) const { return m_objects / (id + ".body"); }

} // namespace tavix::emulator
