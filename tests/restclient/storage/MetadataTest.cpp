#include <restclient/storage/Metadata.h>

#include <tests/support/Loopback.h>

#include <limits>

namespace tavix::restclient::storage {
namespace {

using test::json;

// The variant read from the JSON value `text`, starting from the empty string.
Variant read(std::string const& text)
{
    Variant value = std::string();
    VariantDeserializer()(json(R"({"v": )" + text + "}")["v"], value);
    return value;
}

// The "metadata" member that `metadata` writes, as text.
std::string written(Metadata const& metadata)
{
    JsonWriter writer;
    writer.startObject();
    metadata.serialize(writer);
    writer.endObject();
    return writer.str(false);
}

TEST(Variant, ReadingTiesBreakUnsignedFirstThenSignedThenDouble)
{
    std::vector<std::pair<char const*, Variant>> const cases{{"5", 5u},
                                                             {"5.0", 5u},
                                                             {"4294967295", 4294967295u},
                                                             {"4294967296", 4294967296ull},
                                                             {"-1", -1},
                                                             {"-2147483648", std::numeric_limits<int>::min()},
                                                             {"-3000000000", -3000000000ll},
                                                             {"5.5", 5.5},
                                                             {"true", true},
                                                             {R"("7")", std::string("7")},
                                                             {"null", std::string()},
                                                             {"[1]", std::string()}};
    for (auto const& [text, expected] : cases) EXPECT_EQ(read(text), expected) << text;
    EXPECT_EQ(read(R"({"a": 1})"), Variant(std::string()));
}

TEST(Variant, WritingKeepsEachAlternativesJsonKind)
{
    JsonWriter writer;
    writer.startObject();
    writer.startArray("a");
    for (Variant const& value : {Variant(-7), Variant(-3000000000ll), Variant(7u), Variant(18446744073709551615ull),
                                 Variant(2.5), Variant(std::string("x")), Variant(false)}) {
        VariantSerializer()(writer, "ignored", value);
    }
    writer.endArray();
    writer.endObject();
    EXPECT_EQ(writer.str(false), R"({"a":[-7,-3000000000,7,18446744073709551615,2.5,"x",false]})");
}

TEST(Metadata, KeepsInsertionOrderAndTheFirstValueOfAKey)
{
    Metadata metadata;
    EXPECT_EQ(written(metadata), R"({"metadata":{"item":[]}})");
    metadata.add<std::string>("b", "1");
    metadata.add<std::string>("a", "2");
    metadata.add<std::string>("b", "3");
    metadata.add("c", static_cast<char*>(nullptr));
    char empty[] = "";
    metadata.add("e", empty);
    EXPECT_EQ(metadata.size(), 3u);
    EXPECT_EQ(metadata.keys(), (std::vector<std::string>{"b", "a", "e"}));
    EXPECT_EQ(metadata.get<std::string>("b"), "1");
    EXPECT_TRUE(metadata.exists("e"));
    EXPECT_FALSE(metadata.exists("c"));

    EXPECT_EQ(metadata.remove("b") + metadata.remove("b"), 1u);
    metadata.add<std::string>("b", "4");
    Metadata const copy = metadata;
    EXPECT_EQ(copy.keys(), (std::vector<std::string>{"a", "e", "b"}));
    EXPECT_EQ(written(copy),
              R"({"metadata":{"item":[{"key":"a","value":"2"},{"key":"e","value":""},{"key":"b","value":"4"}]}})");
}

TEST(Metadata, ReadingMergesExistingKeysWinningAndSkipsMalformedParts)
{
    Metadata metadata;
    metadata.add<std::string>("held", "old");
    metadata.deserialize(json(R"({"metadata": {"item": [{"key": "x", "value": 5}, {"key": "x", "value": "y"},
        {"key": "held", "value": "new"}, {"key": "n", "value": null}, {"key": "k"}, {"value": 1}, 7]}})"));
    EXPECT_EQ(metadata.get<unsigned int>("x"), 5u);
    EXPECT_EQ(metadata.get<std::string>("x"), "");
    EXPECT_EQ(written(metadata),
              R"({"metadata":{"item":[{"key":"held","value":"old"},{"key":"x","value":5},{"key":"n","value":""}]}})");

    for (char const* text : {R"({"metadata": 1})", R"({"metadata": {"item": {}}})", R"({"metadata": {"item": "x"}})",
                             R"({"metadata": {}})", "[1]"}) {
        metadata.deserialize(json(text));
        EXPECT_EQ(metadata.size(), 3u) << text;
    }
}

} // namespace
} // namespace tavix::restclient::storage
