#include <tavix/JsonWriter.h>

#include <json/writer.h>

#include <cassert>

namespace tavix {

JsonWriter::JsonWriter() : m_root(Json::nullValue) {}

bool JsonWriter::allowed(bool wellFormed)
{
    if (!wellFormed) m_ok = false;
    assert(wellFormed && "JsonWriter misused");
    return wellFormed;
}

void JsonWriter::open(std::string const* name, Json::ValueType type)
{
    if (m_open.empty()) {
        // Only containers were ever opened into the root: not null, it was opened and closed.
        if (!allowed(m_root.isNull())) return;
        m_root = Json::Value(type);
        m_open.push_back(&m_root);
        return;
    }
    Json::Value& parent = *m_open.back();
    if (parent.isArray()) {
        m_open.push_back(&parent.append(Json::Value(type)));
        return;
    }
    if (!allowed(name != nullptr)) return;
    Json::Value& member = parent[*name];
    member = Json::Value(type);
    m_open.push_back(&member);
}

void JsonWriter::close(Json::ValueType type)
{
    if (allowed(!m_open.empty() && m_open.back()->type() == type)) m_open.pop_back();
}

void JsonWriter::startObject() { open(nullptr, Json::objectValue); }
void JsonWriter::startObject(std::string const& name) { open(&name, Json::objectValue); }
void JsonWriter::startArray(std::string const& name) { open(&name, Json::arrayValue); }
void JsonWriter::endObject() { close(Json::objectValue); }
void JsonWriter::endArray() { close(Json::arrayValue); }

void JsonWriter::place(std::string const& key, Json::Value value)
{
    if (!allowed(!m_open.empty())) return;
    Json::Value& container = *m_open.back();
    if (container.isArray()) {
        container.append(std::move(value));
    } else {
        container[key] = std::move(value);
    }
}

void JsonWriter::write(std::string const& key, char const* value)
{
    place(key, value ? Json::Value(value) : Json::Value(Json::nullValue));
}

std::string JsonWriter::str(bool pretty) const
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = pretty ? "  " : "";
    return Json::writeString(builder, m_root);
}

} // namespace tavix
