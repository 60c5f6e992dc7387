#include <restclient/veltrun/BasicErrorResponse.h>
#include <restclient/veltrun/TavixErrorResponse.h>

#include <tests/support/Json.h>

#include <gtest/gtest.h>

namespace tavix::restclient::veltrun {
namespace {

using test::json;

TEST(TavixErrorResponse, ReadsTheWrappedOrTheBareFormIgnoringMistypedMembers)
{
    struct Case {
        char const* body;
        unsigned code, subCode;
        char const* message;
    };
    for (Case const& c : {
             Case{R"({"TavixErrorResponse": {"code": 401, "subCode": 3, "message": "expired"}})", 401, 3, "expired"},
             Case{R"({"code": 401, "subCode": 3, "message": "expired", "extra": [1]})", 401, 3, "expired"},
             Case{R"({"TavixErrorResponse": {}, "code": 9})", 0, 0, ""}, // the wrapper hides its siblings
             Case{R"({"code": "401", "subCode": -2, "details": 5, "message": ["x"]})", 0, 0, ""},
         }) {
        TavixErrorResponse error;
        error.handleResponse(json(c.body));
        EXPECT_EQ(error.code.value, c.code) << c.body;
        EXPECT_EQ(error.subCode.value, c.subCode) << c.body;
        EXPECT_EQ(error.message.value, c.message) << c.body;
        EXPECT_EQ(error.details.value, "") << c.body;
    }
}

TEST(BasicErrorResponse, ReadsOnlyATopLevelStringMessage)
{
    for (auto const& [body, message] : std::vector<std::pair<char const*, char const*>>{
             {R"({"message": "no location"})", "no location"}, {R"({"error": {"message": "x"}})", ""}}) {
        BasicErrorResponse error;
        error.handleResponse(json(body));
        EXPECT_EQ(error.message.value, message) << body;
    }
}

} // namespace
} // namespace tavix::restclient::veltrun
