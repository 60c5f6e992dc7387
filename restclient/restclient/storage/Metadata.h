// The key/value list a stored object carries. Entries keep the order in which they were
// added and keys are unique: adding an existing key changes nothing, so a value is changed by
// `remove` and `add`, which moves the key to the end. JSON form:
//   "metadata": {"item": [{"key": "...", "value": <scalar>}, ...]}
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

class RESTCLIENT_EXPORT Metadata : public IWebSerializable {
public:
    using Entry = std::pair<std::string, VariantValue>;
    using Entries = boost::multi_index_container<
        Entry,
        boost::multi_index::indexed_by<
            boost::multi_index::sequenced<>,
            boost::multi_index::ordered_unique<boost::multi_index::member<Entry, std::string, &Entry::first>>>>;

    std::size_t size() const { return m_entries.size(); }
    bool exists(std::string const& key) const;
    // The keys in entry order, for callers that list what an object carries.
    std::vector<std::string> keys() const;

    // Values of other kinds enter only through `deserialize`.
    template <typename T>
    void add(std::string const& key, T const& value)
    {
        static_assert(std::is_same_v<T, std::string>, "metadata values are added as strings");
        insert(key, Variant(value));
    }
    // A null `value` adds nothing.
    void add(std::string const& key, char* value);

    // The held alternative of type T; a default T when the key is absent or holds another kind.
    template <typename T>
    T get(std::string const& key) const
    {
        Variant const* value = find(key);
        return value ? restclient::get<T>(*value) : T();
    }

    // The number of entries removed (0 or 1).
    std::size_t remove(std::string const& key);

    void serialize(JsonWriter& writer) const override;
    // Reads json["metadata"]["item"] and adds its entries: keys already held, and repeated keys,
    // keep their first value. Malformed parts are skipped.
    void deserialize(Json::Value const& json) override;

private:
    void insert(std::string const& key, Variant value);
    Variant const* find(std::string const& key) const;

    Entries m_entries;
};

} // namespace tavix::restclient::storage
