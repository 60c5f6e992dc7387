#include <restclient/storage/ResourceResponse.h>

namespace tavix::restclient::storage {

namespace {

// Reads a fresh resource in place at the end of the list; one whose reading throws is not kept.
void append(std::vector<Resource>& resources, Json::Value const& json)
{
    Resource& resource = resources.emplace_back();
    try {
        resource.deserialize(json);
    } catch (...) {
        resources.pop_back();
        throw;
    }
}

} // namespace

void ResourceResponse::handleResponse(Json::Value const& json) { resource.deserialize(json); }

ResourcesResponse::ResourcesResponse() : href("href", "") {}

void ResourcesResponse::handleResponse(Json::Value const& json)
{
    if (!json.isObject()) return;
    href.deserialize(json);
    handleResource(json);
}

void ResourcesResponse::handleResource(Json::Value const& json)
{
    static std::string const key = "resource";
    Json::Value const* list = json.isObject() ? json.find(key.data(), key.data() + key.size()) : nullptr;
    if (!list) return;
    if (!list->isArray()) {
        append(resources, *list);
        return;
    }
    resources.reserve(resources.size() + list->size());
    for (Json::Value const& element : *list) {
        append(resources, element);
    }
}

URLResponse::URLResponse() : href("href", ""), expires("expires", ""), url("url", "") {}

void URLResponse::handleResponse(Json::Value const& json)
{
    if (!json.isObject()) return;
    href.deserialize(json);
    expires.deserialize(json);
    url.deserialize(json);
}

} // namespace tavix::restclient::storage
