// A named, typed JSON field. It is only ever overwritten by a member of its own JSON kind:
// a missing or mistyped member leaves the value as it was, silently, so documents decode
// whatever a service leaves out.
#pragma once

#include <restclient/IWebSerializable.h>

#include <string>

namespace tavix::restclient {

template <typename T>
struct BasicSerializer {
    void operator()(JsonWriter& writer, std::string const& name, T const& value) const { writer.write(name, value); }
};

struct UIntDeserializer {
    void operator()(Json::Value const& member, unsigned int& value) const
    {
        if (member.isUInt()) value = member.asUInt();
    }
};

struct IntDeserializer {
    void operator()(Json::Value const& member, int& value) const
    {
        if (member.isInt()) value = member.asInt();
    }
};

struct StringDeserializer {
    void operator()(Json::Value const& member, std::string& value) const
    {
        if (member.isString()) value = member.asString();
    }
};

struct BoolDeserializer {
    void operator()(Json::Value const& member, bool& value) const
    {
        if (member.isBool()) value = member.asBool();
    }
};

template <typename T>
struct DefaultDeserializer;
template <>
struct DefaultDeserializer<unsigned int> {
    using type = UIntDeserializer;
};
template <>
struct DefaultDeserializer<int> {
    using type = IntDeserializer;
};
template <>
struct DefaultDeserializer<std::string> {
    using type = StringDeserializer;
};
template <>
struct DefaultDeserializer<bool> {
    using type = BoolDeserializer;
};

template <typename T, typename Serializer = BasicSerializer<T>,
          typename Deserializer = typename DefaultDeserializer<T>::type>
class Value : public IWebSerializable {
public:
    Value(std::string const& name, T const& value) : name(name), value(value) {}
    Value(Value const& other) : IWebSerializable(other), name(other.name), value(other.value) {}
    Value(Value&& other) = default;
    Value& operator=(Value const& other) = default;
    Value& operator=(Value&& other) = default;
    virtual ~Value() = default;

    void serialize(JsonWriter& writer) const override { m_serializer(writer, name, value); }

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
    std::string name;
    T value;
};

} // namespace tavix::restclient
