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

/// @brief One object's description. The single-resource answer carries the resource's keys at
/// its top level.
class RESTCLIENT_EXPORT ResourceResponse : public IWebResponse {
public:
    /// Reads `resource` from the document (see Resource::deserialize).
    void handleResponse(Json::Value const& json) override;

    Resource resource; ///< the object
};

/// @brief A list of objects: a search's, a listing's or the current list's answer.
class RESTCLIENT_EXPORT ResourcesResponse : public IWebResponse {
public:
    /// An empty list.
    ResourcesResponse();
    /// Reads `href` and the resources of an object answer.
    void handleResponse(Json::Value const& json) override;
    /// Appends the resources of json["resource"], an array of them or a single one; the list is
    /// not emptied first.
    void handleResource(Json::Value const& json);

    Value<std::string> href;         ///< the list's own link
    std::vector<Resource> resources; ///< in the answer's order
};

/// @brief A pre-signed address (a download address, for ResourceDownloadClient).
class RESTCLIENT_EXPORT URLResponse : public IWebResponse {
public:
    /// Every field empty.
    URLResponse();
    /// Reads "href", "expires" and "url" from an object answer.
    void handleResponse(Json::Value const& json) override;

    Value<std::string> href;    ///< the object's link
    Value<std::string> expires; ///< when `url` stops being valid, in the service's text
    Value<std::string> url;     ///< the pre-signed address; holds a signature: do not log it
};

} // namespace tavix::restclient::storage
