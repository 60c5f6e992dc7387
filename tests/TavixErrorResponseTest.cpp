#include <restclient/veltrun/TavixErrorResponse.h>

#include <tests/support/Json.h>

#include <gtest/gtest.h>

namespace tavix::restclient::veltrun {
namespace {

using testing::json;

TEST(TavixErrorResponse, ReadsTheWrappedAndTheBareForm)
{
    for (char const* body : {R"({"TavixErrorResponse": {"code": 401, "subCode": 3, "message": "expired"}})",
                             R"({"code": 401, "subCode": 3, "message": "expired", "extra": [1]})"}) {
        TavixErrorResponse error;
        error.handleResponse(json(body));
        EXPECT_EQ(error.code.value, 401u) << body;
        EXPECT_EQ(error.subCode.value, 3u) << body;
        EXPECT_EQ(error.message.value, "expired") << body;
        EXPECT_EQ(error.details.value, "") << body;
    }
}

TEST(TavixErrorResponse, TheWrapperHidesItsSiblingsAndMistypedMembersAreIgnored)
{
    TavixErrorResponse wrapped;
    wrapped.handleResponse(json(R"({"TavixErrorResponse": {}, "code": 9})"));
    EXPECT_EQ(wrapped.code.value, 0u);

    TavixErrorResponse mistyped;
    mistyped.handleResponse(json(R"({"code": "401", "subCode": -2, "details": 5})"));
    EXPECT_EQ(mistyped.code.value, 0u);
    EXPECT_EQ(mistyped.subCode.value, 0u);
    EXPECT_EQ(mistyped.details.value, "");
}

TEST(BasicErrorResponse, ReadsOnlyATopLevelStringMessage)
{
    BasicErrorResponse plain;
    plain.handleResponse(json(R"({"message": "no location"})"));
    EXPECT_EQ(plain.message.value, "no location");

    BasicErrorResponse nested;
    nested.handleResponse(json(R"({"error": {"message": "x"}})"));
    EXPECT_EQ(nested.message.value, "");
}

} // namespace
} // namespace tavix::restclient::veltrun
