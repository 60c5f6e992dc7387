#include <tavix/JsonWriter.h>

#include <tests/support/Json.h>

#include <gtest/gtest.h>

#include <functional>

namespace tavix {
namespace {

using test::json;

TEST(JsonWriter, NestedObjectsInArraysCloseBackToTheirParent)
{
    JsonWriter writer;
    writer.startObject();
    writer.startArray("item");
    writer.startObject();
    writer.write<std::string>("key", "0");
    writer.endObject();
    writer.endArray();
    writer.write<std::string>("name", "n");
    writer.endObject();
    EXPECT_TRUE(writer.ok());
    EXPECT_EQ(json(writer.str(true)), json(R"({"item": [{"key": "0"}], "name": "n"})"));
}

// Debug builds assert on the misused call; otherwise it is ignored and remembered.
TEST(JsonWriter, AMisusedCallIsIgnoredAndRemembered)
{
    struct Case {
        char const* what;
        std::function<void(JsonWriter&)> calls;
        char const* document; // what the well-formed calls built
    };
    for (Case const& c : std::vector<Case>{
             {"endArray on an object",
              [](JsonWriter& w) {
                  w.startObject();
                  w.write("a", 1);
                  w.endArray();
                  w.write("b", 2);
                  w.endObject();
              },
              R"({"a": 1, "b": 2})"},
             {"endObject on an array",
              [](JsonWriter& w) {
                  w.startObject();
                  w.startArray("l");
                  w.write("", 1);
                  w.endObject();
                  w.write("", 2);
                  w.endArray();
                  w.endObject();
              },
              R"({"l": [1, 2]})"},
             {"a value before the first container",
              [](JsonWriter& w) {
                  w.write("lost", 1);
                  w.startObject();
                  w.write("a", 1);
                  w.endObject();
              },
              R"({"a": 1})"},
             {"a second root",
              [](JsonWriter& w) {
                  w.startObject();
                  w.write("a", 1);
                  w.endObject();
                  w.startArray("second");
                  w.write("", 2);
                  w.endArray();
              },
              R"({"a": 1})"},
             {"an anonymous object in an object",
              [](JsonWriter& w) {
                  w.startObject();
                  w.startObject();
                  w.write("x", 1);
                  w.endObject();
                  w.endObject();
              },
              R"({"x": 1})"},
             {"closing with nothing open", [](JsonWriter& w) { w.endObject(); }, "null"},
         }) {
        JsonWriter writer;
        EXPECT_DEBUG_DEATH(c.calls(writer), "JsonWriter misused") << c.what;
#ifdef NDEBUG
        EXPECT_FALSE(writer.ok()) << c.what;
        EXPECT_EQ(json(writer.str(false)), json(c.document)) << c.what;
#endif
    }
}

} // namespace
} // namespace tavix
