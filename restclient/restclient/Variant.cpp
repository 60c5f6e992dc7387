#include <restclient/Variant.h>

#include <boost/variant/apply_visitor.hpp>
#include <boost/variant/static_visitor.hpp>

#include <exception>

namespace tavix::restclient {

namespace {

// jsoncpp's 64-bit types are `long` here, not `long long`: the casts pick its constructors.
class Placer : public boost::static_visitor<> {
public:
    Placer(JsonWriter& writer, std::string const& name) : m_writer(writer), m_name(name) {}

    void operator()(int value) const { m_writer.place(m_name, Json::Value(value)); }
    void operator()(long long value) const { m_writer.place(m_name, Json::Value(static_cast<Json::Int64>(value))); }
    void operator()(unsigned int value) const { m_writer.place(m_name, Json::Value(value)); }
    void operator()(unsigned long long value) const
    {
        m_writer.place(m_name, Json::Value(static_cast<Json::UInt64>(value)));
    }
    void operator()(double value) const { m_writer.place(m_name, Json::Value(value)); }
    void operator()(std::string const& value) const { m_writer.write(m_name, value); }
    void operator()(bool value) const { m_writer.place(m_name, Json::Value(value)); }

private:
    JsonWriter& m_writer;
    std::string const& m_name;
};

} // namespace

void VariantSerializer::operator()(JsonWriter& writer, std::string const& name, Variant const& value) const
{
    try {
        boost::apply_visitor(Placer(writer, name), value);
    } catch (std::exception const& e) {
        writer.write(name, std::string(e.what()));
    }
}

void VariantDeserializer::operator()(Json::Value const& json, Variant& value) const
{
    if (json.isString()) {
        value = json.asString();
    } else if (json.isBool()) {
        value = json.asBool();
    } else if (json.isIntegral()) {
        if (json.isUInt()) {
            value = json.asUInt();
        } else if (json.isUInt64()) {
            value = static_cast<unsigned long long>(json.asUInt64());
        } else if (json.isInt()) {
            value = json.asInt();
        } else if (json.isInt64()) {
            value = static_cast<long long>(json.asInt64());
        }
    } else if (json.isDouble()) {
        value = json.asDouble();
    }
}

} // namespace tavix::restclient
