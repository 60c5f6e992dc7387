#include <restclient/Value.h>

#include <gtest/gtest.h>

#include <json/reader.h>

namespace tavix::restclient {
namespace {

Json::Value parse(std::string const& text)
{
    Json::Value root;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &root, &errors)) << errors;
    return root;
}

TEST(Value, OnlyAMemberOfItsOwnKindOverwritesTheValue)
{
    Value<unsigned int> code("code", 5);
    code.deserialize(parse(R"({"code": -1})"));
    EXPECT_EQ(code.value, 5u);
    code.deserialize(parse(R"({"code": "7"})"));
    EXPECT_EQ(code.value, 5u);
    code.deserialize(parse(R"({"code": 4294967296})"));
    EXPECT_EQ(code.value, 5u);
    code.deserialize(parse(R"({"other": 7})"));
    EXPECT_EQ(code.value, 5u);
    code.deserialize(parse(R"({"code": 7})"));
    EXPECT_EQ(code.value, 7u);

    Value<std::string> message("message", "");
    message.deserialize(parse(R"({"message": null})"));
    EXPECT_EQ(message.value, "");
    message.deserialize(Json::Value());
    EXPECT_EQ(message.value, "");

    Value<int> port("port", 0);
    port.deserialize(parse(R"({"port": "5060"})"));
    EXPECT_EQ(port.value, 0);
    port.deserialize(parse(R"({"port": -5})"));
    EXPECT_EQ(port.value, -5);
    port.deserialize(parse(R"({"port": 3000000000})"));
    EXPECT_EQ(port.value, -5);

    Value<bool> flag("flag", false);
    flag.deserialize(parse(R"({"flag": 1})"));
    EXPECT_FALSE(flag.value);
    flag.deserialize(parse(R"({"flag": true})"));
    EXPECT_TRUE(flag.value);
}

TEST(Value, CopyKeepsKeyAndValue)
{
    Value<std::string> original("name", "a");
    Value<std::string> copy(original);
    EXPECT_EQ(copy.name, "name");
    EXPECT_EQ(copy.value, "a");
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

    Json::Value const doc = parse(writer.str(false));
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

TEST(JsonWriter, NestedObjectsInArraysCloseBackToTheirParent)
{
    JsonWriter writer;
    writer.startObject();
    writer.startObject("resource");
    writer.startArray("item");
    for (int i = 0; i < 3; ++i) {
        writer.startObject();
        writer.write("key", std::to_string(i));
        writer.endObject();
    }
    writer.endArray();
    writer.write<std::string>("name", "n");
    writer.endObject();
    writer.endObject();

    Json::Value const doc = parse(writer.str(true));
    ASSERT_EQ(doc["resource"]["item"].size(), 3u);
    EXPECT_EQ(doc["resource"]["item"][2]["key"], "2");
    EXPECT_EQ(doc["resource"]["name"], "n");
}

} // namespace
} // namespace tavix::restclient
