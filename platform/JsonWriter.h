// Builds a JSON document container by container, the way the REST documents serialise
// themselves: open an object or array, write values into whatever is open, close it.
#pragma once

#include <platform/Export.h>

#include <json/value.h>

#include <string>
#include <vector>

namespace tavix {

class TAVIX_EXPORT JsonWriter {
public:
    JsonWriter();
    JsonWriter(JsonWriter const&) = delete;
    JsonWriter& operator=(JsonWriter const&) = delete;

    // An anonymous object: the root when nothing is open, appended when an array is open.
    void startObject();
    void startObject(std::string const& name);
    void startArray(std::string const& name);
    void endObject();
    void endArray();

    // Appends to an open array (the key is ignored) or sets the member of the open object,
    // replacing a member of the same key.
    void place(std::string const& key, Json::Value value);

    template <typename T>
    void write(std::string const& key, T const& value) { place(key, Json::Value(value)); }
    void write(std::string const& key, char const* value);

    // The innermost open container (the root when none is open).
    Json::Value& current();

    // The document text: indented when `pretty`, compact otherwise.
    std::string str(bool pretty) const;

private:
    void open(std::string const* name, Json::ValueType type);

    Json::Value m_root;
    std::vector<Json::Value*> m_open;
};

} // namespace tavix
