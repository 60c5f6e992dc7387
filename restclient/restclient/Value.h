/// @file
/// A named, typed JSON field. It is only ever overwritten by a member of its own JSON kind:
/// a missing or mistyped member leaves the value as it was, silently, so documents decode
/// whatever a service leaves out.
#pragma once

#include <restclient/IWebSerializable.h>

#include <string>

namespace tavix::restclient {

/// @brief Writes a scalar as `writer.write(name, value)`.
template <typename T>
struct BasicSerializer {
    /// Writes `value` under `name`.
    void operator()(JsonWriter& writer, std::string const& name, T const& value) const { writer.write(name, value); }
};

/// @brief Takes a JSON number that fits an unsigned int.
struct UIntDeserializer {
    /// Assigns `member` to `value` when it fits; otherwise leaves `value`.
    void operator()(Json::Value const& member, unsigned int& value) const
    {
        if (member.isUInt()) value = member.asUInt();
    }
};

/// @brief Takes a JSON number that fits an int.
struct IntDeserializer {
    /// Assigns `member` to `value` when it fits; otherwise leaves `value`.
    void operator()(Json::Value const& member, int& value) const
    {
        if (member.isInt()) value = member.asInt();
    }
};

/// @brief Takes a JSON string.
struct StringDeserializer {
    /// Assigns `member` to `value` when it is a string; otherwise leaves `value`.
    void operator()(Json::Value const& member, std::string& value) const
    {
        if (member.isString()) value = member.asString();
    }
};

/// @brief Takes a JSON bool.
struct BoolDeserializer {
    /// Assigns `member` to `value` when it is a bool; otherwise leaves `value`.
    void operator()(Json::Value const& member, bool& value) const
    {
        if (member.isBool()) value = member.asBool();
    }
};

/// @brief The reader Value takes for T unless told otherwise; defined for the four scalars below.
template <typename T>
struct DefaultDeserializer;
/// @brief Value's reader for `unsigned int`.
template <>
struct DefaultDeserializer<unsigned int> {
    using type = UIntDeserializer; ///< the reader
};
/// @brief Value's reader for `int`.
template <>
struct DefaultDeserializer<int> {
    using type = IntDeserializer; ///< the reader
};
/// @brief Value's reader for `std::string`.
template <>
struct DefaultDeserializer<std::string> {
    using type = StringDeserializer; ///< the reader
};
/// @brief Value's reader for `bool`.
template <>
struct DefaultDeserializer<bool> {
    using type = BoolDeserializer; ///< the reader
};

/// @brief A document field: its JSON member name and its value, the fields of every document.
///
/// Read `value` after the completion; a field the answer lacked holds its default (set by the
/// document's constructor). A plain value, not thread-safe.
/// @tparam T            unsigned int, int, std::string or bool (or Variant with its visitors)
/// @tparam Serializer   writes `value` into a JsonWriter
/// @tparam Deserializer reads `value` from a member, leaving it on a mismatch
template <typename T, typename Serializer = BasicSerializer<T>,
          typename Deserializer = typename DefaultDeserializer<T>::type>
class Value : public IWebSerializable {
public:
    /// A field named `name` (its JSON member) holding `value`.
    Value(std::string const& name, T const& value) : name(name), value(value) {}
    /// @name Copy and move
    /// @{

    /// Member-wise: name and value.
    Value(Value const& other) : IWebSerializable(other), name(other.name), value(other.value) {}
    Value(Value&& other) = default;
    Value& operator=(Value const& other) = default;
    Value& operator=(Value&& other) = default;
    /// @}
    virtual ~Value() = default;

    /// Writes `value` under `name` (appended when an array is open).
    void serialize(JsonWriter& writer) const override { m_serializer(writer, name, value); }

    /// Takes member `name` of `document` when it has T's JSON kind. `document` must be an
    /// object or null: any other kind throws Json::LogicError.
    void deserialize(Json::Value const& document) override
    {
        // One look-up: lists of thousands of records decode through here.
        if (Json::Value const* member = document.find(name.data(), name.data() + name.size())) {
            m_deserializer(*member, value);
        }
    }

private:
    Serializer m_serializer;
    Deserializer m_deserializer;

public:
    std::string name; ///< the JSON member name
    T value;          ///< the value; overwritten only by a member of its own kind
};

} // namespace tavix::restclient
