#include <tavix/version/BuildVersion.h>

#include <gtest/gtest.h>

#include <regex>

namespace tavix::version {
namespace {

TEST(BuildVersion, TheBuildVersionIsTheProjectVersionAndMaybeARevision)
{
    EXPECT_TRUE(std::regex_match(get_build_version(), std::regex(R"(\d+\.\d+\.\d+(\+[0-9a-f]+)?)")))
        << get_build_version();
}

} // namespace
} // namespace tavix::version
