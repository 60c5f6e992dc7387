#include <restclient/Value.h>

#include <tests/support/Json.h>

#include <gtest/gtest.h>

namespace tavix::restclient {
namespace {

using testing::json;

TEST(Value, OnlyAMemberOfItsOwnKindOverwritesTheValue)
{
    Value<unsigned int> code("code", 5);
    code.deserialize(json(R"({"code": -1})"));
    EXPECT_EQ(code.value, 5u);
    code.deserialize(json(R"({"code": "7"})"));
    EXPECT_EQ(code.value, 5u);
    code.deserialize(json(R"({"code": 4294967296})"));
    EXPECT_EQ(code.value, 5u);
    code.deserialize(json(R"({"other": 7})"));
    EXPECT_EQ(code.value, 5u);
    code.deserialize(json(R"({"code": 7})"));
    EXPECT_EQ(code.value, 7u);

    Value<std::string> message("message", "");
    message.deserialize(json(R"({"message": null})"));
    EXPECT_EQ(message.value, "");
    message.deserialize(Json::Value());
    EXPECT_EQ(message.value, "");

    Value<int> port("port", 0);
    port.deserialize(json(R"({"port": "5060"})"));
    EXPECT_EQ(port.value, 0);
    port.deserialize(json(R"({"port": -5})"));
    EXPECT_EQ(port.value, -5);
    port.deserialize(json(R"({"port": 3000000000})"));
    EXPECT_EQ(port.value, -5);

    Value<bool> flag("flag", false);
    flag.deserialize(json(R"({"flag": 1})"));
    EXPECT_FALSE(flag.value);
    flag.deserialize(json(R"({"flag": true})"));
    EXPECT_TRUE(flag.value);
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
