#include <restclient/account/SplitUrl.h>

#include <gtest/gtest.h>

namespace tavix::restclient::account {
namespace {

struct Pieces {
    std::string host = "-";
    unsigned int port = 1;
    bool tls = false;
    std::string path = "-";
    std::string accountPart = "-"; // "-": left as it was
};

TEST(SplitUrl, CutsSchemeHostPortPathAndAccountPart)
{
    struct Case {
        char const* url;
        Pieces expected;
    };
    Case const cases[] = {
        {"http://h/x", {"h", 80, false, "/x", "-"}},
        {"https://h/x", {"h", 443, true, "/x", "-"}},
        {"ftp://h/x", {"h", 443, true, "/x", "-"}},
        {"wss://h", {"h", 443, true, "", "-"}},
        {"HTTP://H/x", {"H", 80, false, "/x", "-"}},
        {"https://h:8080", {"h", 8080, true, "", "-"}},
        {"https://h/p:9", {"h", 443, true, "/p:9", "-"}},
        {"https://h:abc/x", {"h", 0, true, "/x", "-"}},
        {"http://h: 12x/", {"h", 12, false, "/", "-"}},
        {"HTTPS://svc:8443/v1/accounts/42", {"svc", 8443, true, "/v1/accounts", "42"}},
        {"https://h/a/accounts/", {"h", 443, true, "/a/accounts", ""}},
    };
    for (Case const& c : cases) {
        Pieces got;
        got.tls = !c.expected.tls;
        ASSERT_TRUE(split_URL(c.url, got.host, got.port, got.tls, got.path, got.accountPart)) << c.url;
        EXPECT_EQ(got.host, c.expected.host) << c.url;
        EXPECT_EQ(got.port, c.expected.port) << c.url;
        EXPECT_EQ(got.tls, c.expected.tls) << c.url;
        EXPECT_EQ(got.path, c.expected.path) << c.url;
        EXPECT_EQ(got.accountPart, c.expected.accountPart) << c.url;
    }
}

TEST(SplitUrl, WithoutSchemeSeparatorLeavesEverythingUntouched)
{
    Pieces got;
    EXPECT_FALSE(split_URL("h:80/accounts/1", got.host, got.port, got.tls, got.path, got.accountPart));
    EXPECT_EQ(got.host + got.path + got.accountPart, "---");
    EXPECT_EQ(got.port, 1u);
}

} // namespace
} // namespace tavix::restclient::account
