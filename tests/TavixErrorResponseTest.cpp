#include <restclient/veltrun/TavixErrorResponse.h>

#include <gtest/gtest.h>

#include <json/reader.h>

namespace tavix::restclient::veltrun {
namespace {

Json::Value parse(std::string const& text)
{
    Json::Value root;
    std::istringstream in(text);
    std::string errors;
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &root, &errors)) << errors;
    return root;
}

TEST(TavixErrorResponse, ReadsTheWrappedAndTheBareForm)
{
    for (char const* body : {R"({"TavixErrorResponse": {"code": 401, "subCode": 3, "message": "expired"}})",
                             R"({"code": 401, "subCode": 3, "message": "expired", "extra": [1]})"}) {
        TavixErrorResponse error;
        error.handleResponse(parse(body));
        EXPECT_EQ(error.code.value, 401u) << body;
        EXPECT_EQ(error.subCode.value, 3u) << body;
        EXPECT_EQ(error.message.value, "expired") << body;
        EXPECT_EQ(error.details.value, "") << body;
    }
}

TEST(TavixErrorResponse, TheWrapperHidesItsSiblingsAndMistypedMembersAreIgnored)
{
    TavixErrorResponse wrapped;
    wrapped.handleResponse(parse(R"({"TavixErrorResponse": {}, "code": 9})"));
    EXPECT_EQ(wrapped.code.value, 0u);

    TavixErrorResponse mistyped;
    mistyped.handleResponse(parse(R"({"code": "401", "subCode": -2, "details": 5})"));
    EXPECT_EQ(mistyped.code.value, 0u);
    EXPECT_EQ(mistyped.subCode.value, 0u);
    EXPECT_EQ(mistyped.details.value, "");
}

TEST(TavixErrorResponse, CopiesKeepKeysAndValues)
{
    TavixErrorResponse error;
    error.handleResponse(parse(R"({"code": 404, "details": "d"})"));
    TavixErrorResponse copy(error);
    EXPECT_EQ(copy.code.name, "code");
    EXPECT_EQ(copy.code.value, 404u);
    EXPECT_EQ(copy.details.value, "d");
    // The copy still decodes by its keys.
    copy.handleResponse(parse(R"({"subCode": 2})"));
    EXPECT_EQ(copy.subCode.value, 2u);
}

TEST(BasicErrorResponse, ReadsOnlyATopLevelStringMessage)
{
    BasicErrorResponse plain;
    plain.handleResponse(parse(R"({"message": "no location"})"));
    EXPECT_EQ(plain.message.value, "no location");

    BasicErrorResponse nested;
    nested.handleResponse(parse(R"({"error": {"message": "x"}})"));
    EXPECT_EQ(nested.message.value, "");
}

} // namespace
} // namespace tavix::restclient::veltrun
