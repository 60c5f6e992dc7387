/// @file
/// The key/value list a stored object carries. Entries keep the order in which they were
/// added and keys are unique: adding an existing key changes nothing, so a value is changed by
/// `remove` and `add`, which moves the key to the end. JSON form:
///
///     "metadata": {"item": [{"key": "...", "value": <scalar>}, ...]}
#pragma once

#include <restclient/Export.h>
#include <restclient/IWebSerializable.h>
#include <restclient/Variant.h>

#include <boost/multi_index/member.hpp>
#include <boost/multi_index/ordered_index.hpp>
#include <boost/multi_index/sequenced_index.hpp>
#include <boost/multi_index_container.hpp>

#include <cstddef>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace tavix::restclient::storage {

/// @brief A stored object's metadata: ordered, unique keys with scalar values.
///
/// A plain value, not thread-safe.
class RESTCLIENT_EXPORT Metadata : public IWebSerializable {
public:
    /// A key and its value.
    using Entry = std::pair<std::string, VariantValue>;
    /// Insertion order, and a unique index by key.
    using Entries = boost::multi_index_container<
        Entry,
        boost::multi_index::indexed_by<
            boost::multi_index::sequenced<>,
            boost::multi_index::ordered_unique<boost::multi_index::member<Entry, std::string, &Entry::first>>>>;

    /// The number of entries.
    std::size_t size() const { return m_entries.size(); }
    /// Whether `key` is held.
    bool exists(std::string const& key) const;
    /// The keys in entry order, for callers that list what an object carries.
    std::vector<std::string> keys() const;

    /// Adds a string value; a key already held keeps its value (nothing changes). Values of
    /// other kinds enter only through `deserialize`.
    template <typename T>
    void add(std::string const& key, T const& value)
    {
        static_assert(std::is_same_v<T, std::string>, "metadata values are added as strings");
        insert(key, Variant(value));
    }
    /// The same for a C string; a null `value` adds nothing.
    void add(std::string const& key, char* value);

    /// The held alternative of type T; a default T when the key is absent or holds another kind.
    template <typename T>
    T get(std::string const& key) const
    {
        Variant const* value = find(key);
        return value ? restclient::get<T>(*value) : T();
    }

    /// Removes `key`; the number of entries removed (0 or 1).
    std::size_t remove(std::string const& key);

    /// Writes `"metadata": {"item": [...]}` into the open object, in insertion order.
    void serialize(JsonWriter& writer) const override;
    /// Reads json["metadata"]["item"] and adds its entries: keys already held, and repeated keys,
    /// keep their first value. Malformed parts are skipped.
    void deserialize(Json::Value const& json) override;

private:
    void insert(std::string const& key, Variant value);
    Variant const* find(std::string const& key) const;

    Entries m_entries;
};

} // namespace tavix::restclient::storage
