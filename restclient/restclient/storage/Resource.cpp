#include <restclient/storage/Resource.h>

namespace tavix::restclient::storage {

namespace {

// The link object `key` of `json`; null when absent or not an object, so that a link of
// another JSON kind reads as no link.
Json::Value const* link(Json::Value const& json, char const* key)
{
    if (!json.isObject()) return nullptr;
    Json::Value const* member = json.find(key, key + std::char_traits<char>::length(key));
    return member && member->isObject() ? member : nullptr;
}

} // namespace

Url::Url() : href("href", "") {}

void Url::serialize(JsonWriter& writer) const
{
    writer.startObject("url");
    href.serialize(writer);
    writer.endObject();
}

void Url::deserialize(Json::Value const& json)
{
    if (Json::Value const* member = link(json, "url")) href.deserialize(*member);
}

Versions::Versions() : href("href", "") {}

void Versions::serialize(JsonWriter& writer) const
{
    writer.startObject("versions");
    href.serialize(writer);
    writer.endObject();
}

void Versions::deserialize(Json::Value const& json)
{
    if (Json::Value const* member = link(json, "versions")) href.deserialize(*member);
}

Resource::Resource()
    : href("href", ""), contentLength("contentLength", 0), created("created", ""), mimeType("mimeType", ""),
      name("name", ""), type("type", ""), version("version", "")
{}

void Resource::serialize(JsonWriter& writer) const
{
    writer.startObject();
    href.serialize(writer);
    contentLength.serialize(writer);
    created.serialize(writer);
    metadata.serialize(writer);
    mimeType.serialize(writer);
    name.serialize(writer);
    type.serialize(writer);
    url.serialize(writer);
    version.serialize(writer);
    versions.serialize(writer);
    writer.endObject();
}

void Resource::deserialize(Json::Value const& json)
{
    // Anything but an object describes nothing.
    if (!json.isObject()) return;
    href.deserialize(json);
    contentLength.deserialize(json);
    created.deserialize(json);
    metadata.deserialize(json);
    mimeType.deserialize(json);
    name.deserialize(json);
    type.deserialize(json);
    url.deserialize(json);
    version.deserialize(json);
    versions.deserialize(json);
}

} // namespace tavix::restclient::storage
