#include <tests/support/Json.h>

#include <gtest/gtest.h>
#include <json/reader.h>

#include <sstream>

namespace tavix::test {

Json::Value json(std::string const& text)
{
    Json::Value root;
    std::istringstream in(text);
    std::string errors;
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &root, &errors)) << errors << " in " << text;
    return root;
}

} // namespace tavix::test
