#include <restclient/storage/Metadata.h>

namespace tavix::restclient::storage {

namespace {

char const* const valueKey = "value";

// The member `key` of `json` when `json` is an object that has it.
Json::Value const* member(Json::Value const& json, char const* key)
{
    return json.isObject() ? json.find(key, key + std::char_traits<char>::length(key)) : nullptr;
}

} // namespace

bool Metadata::exists(std::string const& key) const { return m_entries.get<1>().count(key) != 0; }

std::vector<std::string> Metadata::keys() const
{
    std::vector<std::string> keys;
    keys.reserve(m_entries.size());
    for (Entry const& entry : m_entries) keys.push_back(entry.first);
    return keys;
}

void Metadata::add(std::string const& key, char* value)
{
    if (value) insert(key, Variant(std::string(value)));
}

std::size_t Metadata::remove(std::string const& key) { return m_entries.get<1>().erase(key); }

void Metadata::insert(std::string const& key, Variant value)
{
    // The ordered view refuses a key it already holds; the sequence view appends.
    m_entries.get<1>().insert(Entry(key, VariantValue(valueKey, value)));
}

Variant const* Metadata::find(std::string const& key) const
{
    auto const& byKey = m_entries.get<1>();
    auto const found = byKey.find(key);
    return found == byKey.end() ? nullptr : &found->second.value;
}

void Metadata::serialize(JsonWriter& writer) const
{
    writer.startObject("metadata");
    writer.startArray("item");
    for (Entry const& entry : m_entries) {
        writer.startObject();
        writer.write("key", entry.first);
        entry.second.serialize(writer);
        writer.endObject();
    }
    writer.endArray();
    writer.endObject();
}

void Metadata::deserialize(Json::Value const& json)
{
    Json::Value const* metadata = member(json, "metadata");
    Json::Value const* items = metadata ? member(*metadata, "item") : nullptr;
    if (!items || !items->isArray() || items->empty()) return;

    auto& byKey = m_entries.get<1>();
    for (Json::Value const& item : *items) {
        Json::Value const* key = member(item, "key");
        Json::Value const* value = member(item, valueKey);
        if (!key || !value) continue;
        Entry entry(key->asString(), VariantValue(valueKey, std::string()));
        VariantDeserializer()(*value, entry.second.value);
        byKey.insert(std::move(entry));
    }
}

} // namespace tavix::restclient::storage
