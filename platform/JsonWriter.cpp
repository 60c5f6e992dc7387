#include <platform/JsonWriter.h>

#include <json/writer.h>

namespace tavix {

JsonWriter::JsonWriter() : m_root(Json::nullValue) {}

void JsonWriter::open(std::string const* name, Json::ValueType type)
{
    if (m_open.empty()) {
        // The first container opened becomes the document itself, whatever its name.
        m_root = Json::Value(type);
        m_open.push_back(&m_root);
        return;
    }
    Json::Value& parent = current();
    if (parent.isArray()) {
        m_open.push_back(&parent.append(Json::Value(type)));
    } else {
        Json::Value& member = parent[name ? *name : std::string()];
        member = Json::Value(type);
        m_open.push_back(&member);
    }
}

void JsonWriter::startObject() { open(nullptr, Json::objectValue); }
void JsonWriter::startObject(std::string const& name) { open(&name, Json::objectValue); }
void JsonWriter::startArray(std::string const& name) { open(&name, Json::arrayValue); }

void JsonWriter::endObject()
{
    if (!m_open.empty()) m_open.pop_back();
}

void JsonWriter::endArray()
{
    if (!m_open.empty()) m_open.pop_back();
}

Json::Value& JsonWriter::current()
{
    if (m_open.empty()) {
        if (m_root.isNull()) m_root = Json::Value(Json::objectValue);
        return m_root;
    }
    return *m_open.back();
}

void JsonWriter::place(std::string const& key, Json::Value value)
{
    Json::Value& container = current();
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
