/// @file
/// The storage service's description of one stored object: its properties, metadata, and the
/// links to its download address ("url") and its version list ("versions").
#pragma once

#include <restclient/Export.h>
#include <restclient/IWebSerializable.h>
#include <restclient/Value.h>
#include <restclient/storage/Metadata.h>

#include <string>

namespace tavix::restclient::storage {

// "url": {"href": ...}
class RESTCLIENT_EXPORT Url : public IWebSerializable {
public:
    Url();
    void serialize(JsonWriter& writer) const override;
    void deserialize(Json::Value const& json) override;
    virtual ~Url() = default;

    Value<std::string> href;
};

// "versions": {"href": ...}
class RESTCLIENT_EXPORT Versions : public IWebSerializable {
public:
    Versions();
    void serialize(JsonWriter& writer) const override;
    void deserialize(Json::Value const& json) override;
    virtual ~Versions() = default;

    Value<std::string> href;
};

// Reading does not clear the record first: only what the JSON carries is overwritten, and
// the metadata merges.
class RESTCLIENT_EXPORT Resource : public IWebSerializable {
public:
    Resource();
    Resource(Resource const&) = default;
    Resource(Resource&&) = default;
    Resource& operator=(Resource const&) = default;
    Resource& operator=(Resource&&) = default;
    // Writes an anonymous object (appended when an array is open) with all ten members.
    void serialize(JsonWriter& writer) const override;
    void deserialize(Json::Value const& json) override;
    virtual ~Resource() = default;

    Value<std::string> href;
    Value<unsigned int> contentLength;
    Value<std::string> created;
    Metadata metadata;
    Value<std::string> mimeType;
    Value<std::string> name;
    Value<std::string> type;
    Url url;
    Value<std::string> version;
    Versions versions;
};

} // namespace tavix::restclient::storage
