/// @file
/// Builds a JSON document container by container, the way the REST documents serialise
/// themselves: open an object or array, write values into whatever is open, close it.
///
/// Misuse is a bug of the caller and asserts in debug builds: closing a container of the other
/// kind (or with none open), writing a value or opening a container with no open container to
/// take it (before the first container, or after the root is closed: a second root), and an
/// anonymous object inside an object. Otherwise (NDEBUG) the misused call is ignored and `ok()`
/// turns false for good; `str()` still gives the document as the well-formed calls built it.
#pragma once

#include <tavix/Export.h>

#include <json/value.h>

#include <string>
#include <vector>

namespace tavix {

/// @brief Writes one JSON document, container by container; what the request bodies and records
/// serialise themselves into.
///
/// Not thread-safe; holds no external resource. Misuse never throws: see the file description.
class TAVIX_EXPORT JsonWriter {
public:
    /// An empty writer: no container open, `str()` gives "null".
    JsonWriter();
    JsonWriter(JsonWriter const&) = delete;
    JsonWriter& operator=(JsonWriter const&) = delete;

    /// @name Containers
    /// The first container opened is the document itself, whatever its name; inside an array a
    /// container is appended and its name ignored. An anonymous object: the root, or in an array.
    /// @{

    /// Opens an anonymous object: the root, or an element of the open array.
    void startObject();
    /// Opens an object as member `name` of the open object (or appended to the open array).
    void startObject(std::string const& name);
    /// Opens an array as member `name` of the open object (or appended to the open array).
    void startArray(std::string const& name);
    /// Closes the innermost container, which must be an object.
    void endObject();
    /// Closes the innermost container, which must be an array.
    void endArray();
    /// @}

    /// Appends to an open array (the key is ignored) or sets the member of the open object,
    /// replacing a member of the same key.
    void place(std::string const& key, Json::Value value);

    /// `place(key, Json::Value(value))`: any type jsoncpp makes a value of.
    template <typename T>
    void write(std::string const& key, T const& value)
    {
        place(key, Json::Value(value));
    }
    /// A C string written as a JSON string (not as the bool a pointer would convert to); null
    /// writes JSON null.
    void write(std::string const& key, char const* value);

    /// False once a call was misused (and ignored).
    bool ok() const { return m_ok; }

    /// The document text, containers still open included: indented when `pretty`, compact
    /// otherwise; "null" when nothing was opened.
    std::string str(bool pretty) const;

private:
    void open(std::string const* name, Json::ValueType type);
    void close(Json::ValueType type);
    // `wellFormed`, remembering (and in debug builds asserting) when it is not.
    bool allowed(bool wellFormed);

    Json::Value m_root;
    std::vector<Json::Value*> m_open;
    bool m_ok = true;
};

} // namespace tavix
