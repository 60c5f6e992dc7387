// The emulator's stored objects: one JSON record and one body file per object in a data
// directory, so that a restarted emulator still holds what it was given, also after a SIGKILL:
// records are replaced whole (written aside, then renamed), a body arrives in `incoming/` and is
// renamed into place only once whole and checked, and what was still arriving is dropped at the
// next start. Not locked: its owner serialises access.
#pragma once

#include <boost/filesystem/path.hpp>
#include <boost/system/error_code.hpp>

#include <json/value.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tavix::emulator {

struct StoredObject {
    std::string id;
    unsigned long long sequence = 0; // creation order, also across restarts
    std::string accountId;
    std::string name;
    std::string type;
    std::string contentType;
    Json::Value metadataItems{Json::arrayValue}; // the "item" array as the client sent it
    long long created = 0;                       // seconds since the epoch
    bool uploaded = false;
    unsigned long long contentLength = 0;

    // A name "p/o" is object "o" of project "p"; a name without "/" is its own project, and its
    // objects are addressed by id.
    std::string project() const;
    std::string objectKey() const;
};

class ObjectStore {
public:
    // Creates the folders below `directory` and loads the records an earlier run left there.
    explicit ObjectStore(boost::filesystem::path directory);

    StoredObject create(std::string const& accountId, std::string const& name, std::string const& type,
                        std::string const& contentType, Json::Value const& metadataItems);
    std::optional<StoredObject> find(std::string const& id) const;
    std::vector<StoredObject> all() const; // in creation order
    bool remove(std::string const& id);

    // A fresh file to receive a body for object `id` before it is committed.
    boost::filesystem::path incomingPath(std::string const& id);
    // Makes the file `incoming` the body of object `id`.
    std::optional<StoredObject> commitBody(std::string const& id, boost::filesystem::path const& incoming,
                                           boost::system::error_code& error);
    boost::filesystem::path bodyPath(std::string const& id) const;

private:
    void save(StoredObject const& object);
    void load();
    // A body committed whose record was not yet rewritten when the last run ended.
    void rollForward(StoredObject& object);

    boost::filesystem::path m_objects;
    boost::filesystem::path m_incoming;
    std::map<std::string, StoredObject> m_byId;
    unsigned long long m_nextSequence = 1;
    unsigned long long m_nextIncoming = 1;
};

} // namespace tavix::emulator
