#include <restclient/storage/ResourceResponse.h>

#include <tests/support/Loopback.h>

namespace tavix::restclient::storage {
namespace {

using test::json;

std::vector<std::string> names(ResourcesResponse const& response)
{
    std::vector<std::string> result;
    for (Resource const& resource : response.resources) result.push_back(resource.name.value);
    return result;
}

TEST(ResourcesResponse, TakesAListOrASingleResourceAndAccumulates)
{
    ResourcesResponse response;
    response.handleResponse(json(R"({"href": "h", "resource": {"name": "a"}})"));
    response.handleResponse(json(R"({"resource": [{"name": "b"}, {"name": "c"}]})"));
    response.handleResponse(json(R"({"resource": []})"));
    response.handleResponse(json(R"({"href": 3})"));
    EXPECT_EQ(response.href.value, "h");
    EXPECT_EQ(names(response), (std::vector<std::string>{"a", "b", "c"}));

    response.handleResponse(json(R"({"resource": 5})"));
    EXPECT_EQ(names(response), (std::vector<std::string>{"a", "b", "c", ""}));
}

TEST(Resource, ReadsItsMembersAndKeepsWhatIsMissingOrMistyped)
{
    Resource resource;
    resource.deserialize(json(R"({"href": "h", "contentLength": 4294967295, "created": "c", "mimeType": "m",
        "metadata": {"item": [{"key": "k", "value": "v"}]}, "name": "n", "type": "t", "url": {"href": "u"},
        "version": "1", "versions": {"href": "vs"}})"));
    resource.deserialize(json(R"({"contentLength": -1, "url": "plain", "versions": {"href": 1},
        "metadata": {"item": [{"key": "k", "value": "w"}, {"key": "k2", "value": 2}]}})"));
    EXPECT_EQ(resource.href.value + resource.created.value + resource.mimeType.value + resource.name.value
                  + resource.type.value + resource.version.value,
              "hcmnt1");
    EXPECT_EQ(resource.contentLength.value, 4294967295u);
    EXPECT_EQ(resource.url.href.value, "u");
    EXPECT_EQ(resource.versions.href.value, "vs");
    EXPECT_EQ(resource.metadata.get<std::string>("k"), "v");
    EXPECT_EQ(resource.metadata.get<unsigned int>("k2"), 2u);

    for (char const* length : {R"("12")", "4294967296", "1.5"}) {
        Resource fresh;
        fresh.deserialize(json(std::string(R"({"contentLength": )") + length + "}"));
        EXPECT_EQ(fresh.contentLength.value, 0u) << length;
    }
}

TEST(Resource, AFreshResourceWritesAllTenMembers)
{
    JsonWriter writer;
    writer.startObject();
    writer.startArray("list");
    Resource().serialize(writer);
    writer.endArray();
    writer.endObject();
    EXPECT_EQ(json(writer.str(false)), json(R"({"list": [{"href": "", "contentLength": 0, "created": "",
        "metadata": {"item": []}, "mimeType": "", "name": "", "type": "", "url": {"href": ""}, "version": "",
        "versions": {"href": ""}}]})"));
}

TEST(ResourceResponse, ReadsTheResourceFromTheTopLevel)
{
    ResourceResponse response;
    response.handleResponse(json(R"({"name": "top", "resource": {"name": "inner"}})"));
    EXPECT_EQ(response.resource.name.value, "top");

    URLResponse url;
    url.handleResponse(json(R"({"href": "h", "expires": "e", "url": 5})"));
    EXPECT_EQ(url.href.value + url.expires.value + url.url.value, "he");
}

} // namespace
} // namespace tavix::restclient::storage
