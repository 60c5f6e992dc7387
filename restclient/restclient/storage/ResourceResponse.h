/// @file
/// The answers of the resource clients: one resource, a list of resources, and a pre-signed
/// address. An answer that is not a JSON object fills nothing.
#pragma once

#include <restclient/Export.h>
#include <restclient/IWebResponse.h>
#include <restclient/Value.h>
#include <restclient/storage/Resource.h>

#include <string>
#include <vector>

namespace tavix::restclient::storage {

// The single-resource answer carries the resource's keys at its top level.
class RESTCLIENT_EXPORT ResourceResponse : public IWebResponse {
public:
    void handleResponse(Json::Value const& json) override;

    Resource resource;
};

class RESTCLIENT_EXPORT ResourcesResponse : public IWebResponse {
public:
    ResourcesResponse();
    void handleResponse(Json::Value const& json) override;
    // Appends the resources of json["resource"], an array of them or a single one; the list is
    // not emptied first.
    void handleResource(Json::Value const& json);

    Value<std::string> href;
    std::vector<Resource> resources;
};

class RESTCLIENT_EXPORT URLResponse : public IWebResponse {
public:
    URLResponse();
    void handleResponse(Json::Value const& json) override;

    Value<std::string> href;
    Value<std::string> expires;
    Value<std::string> url;
};

} // namespace tavix::restclient::storage
