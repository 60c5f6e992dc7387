#include <restclient/Value.h>

#include <tests/support/Json.h>

#include <gtest/gtest.h>

namespace tavix::restclient {
namespace {

using test::json;

// A field holding `start` after reading the document {"f": member}.
template <typename T>
T read(T start, std::string const& member)
{
    Value<T> field("f", start);
    field.deserialize(json(R"({"f": )" + member + "}"));
    return field.value;
}

TEST(Value, OnlyAMemberOfItsOwnKindOverwritesTheValue)
{
    for (char const* mistyped : {"-1", R"("7")", "4294967296"}) EXPECT_EQ(read(5u, mistyped), 5u) << mistyped;
    EXPECT_EQ(read(5u, "7"), 7u);
    for (char const* mistyped : {R"("5060")", "3000000000"}) EXPECT_EQ(read(-5, mistyped), -5) << mistyped;
    EXPECT_EQ(read(0, "-5"), -5);
    EXPECT_EQ(read<std::string>("kept", "null"), "kept");
    EXPECT_FALSE(read(false, "1"));
    EXPECT_TRUE(read(false, "true"));

    Value<unsigned int> code("code", 5);
    code.deserialize(json(R"({"other": 7})"));
    code.deserialize(Json::Value());
    EXPECT_EQ(code.value, 5u) << "a missing member, or no object at all";
}

TEST(Value, SerializingPlacesTheFieldInTheOpenContainer)
{
    JsonWriter writer;
    writer.startObject();
    Value<std::string>("k", "first").serialize(writer);
    Value<std::string>("k", "second").serialize(writer);
    Value<unsigned int>("n", 7).serialize(writer);
    writer.startArray("list");
    Value<std::string>("ignored", "bare").serialize(writer);
    Value<bool>("ignored", true).serialize(writer);
    writer.endArray();
    writer.write("none", static_cast<char const*>(nullptr));
    writer.endObject();

    Json::Value const doc = json(writer.str(false));
    EXPECT_EQ(doc.size(), 4u);
    EXPECT_EQ(doc["k"], "second");
    EXPECT_TRUE(doc["n"].isUInt());
    EXPECT_EQ(doc["n"].asUInt(), 7u);
    ASSERT_TRUE(doc["list"].isArray());
    EXPECT_EQ(doc["list"][0], "bare");
    EXPECT_EQ(doc["list"][1], true);
    EXPECT_TRUE(doc["none"].isNull());
    EXPECT_EQ(writer.str(false).find('\n'), std::string::npos);
}

} // namespace
} // namespace tavix::restclient
