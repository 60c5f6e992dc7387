/// @file
/// The storage service's description of one stored object: its properties, metadata, and the
/// links to its download address ("url") and its version list ("versions").
#pragma once

#include <restclient/Export.h>
#include <restclient/IWebSerializable.h>
#include <restclient/Value.h>
#include <restclient/storage/Metadata.h>

#include <string>

namespace tavix::restclient::storage {

/// @brief The link to an object's download address: `"url": {"href": ...}`.
class RESTCLIENT_EXPORT Url : public IWebSerializable {
public:
    /// An empty link.
    Url();
    /// Writes `"url": {"href": ...}` into the open object.
    void serialize(JsonWriter& writer) const override;
    /// Reads the "url" member when it is an object; otherwise leaves the link.
    void deserialize(Json::Value const& json) override;
    virtual ~Url() = default;

    Value<std::string> href; ///< what ResourceDownloadClient::getDownloadURL takes
};

/// @brief The link to an object's version list: `"versions": {"href": ...}`.
class RESTCLIENT_EXPORT Versions : public IWebSerializable {
public:
    /// An empty link.
    Versions();
    /// Writes `"versions": {"href": ...}` into the open object.
    void serialize(JsonWriter& writer) const override;
    /// Reads the "versions" member when it is an object; otherwise leaves the link.
    void deserialize(Json::Value const& json) override;
    virtual ~Versions() = default;

    Value<std::string> href; ///< the version list's address
};

/// @brief One stored object as the Storage service describes it.
///
/// Reading does not clear the record first: only what the JSON carries is overwritten, and
/// the metadata merges.
///
/// @note After a failed upload an object with the file's name may remain without its body:
/// the store request created it before the transfer failed, and searches return it. Tell it by
/// its `contentLength` of 0 while its `_md5checksum` metadata is that of a non-empty file; for
/// certain, ask its download address (ResourceDownloadClient on `url.href`): 404 for no body,
/// 200 for a body (an object stored empty also says 0). The upload queue removes such leftovers
/// (StoreClient::remove on `href`) before it sends the file again.
class RESTCLIENT_EXPORT Resource : public IWebSerializable {
public:
    /// Every field empty or 0.
    Resource();
    /// @name Copy and move
    /// @{

    /// Member-wise.
    Resource(Resource const&) = default;
    Resource(Resource&&) = default;
    Resource& operator=(Resource const&) = default;
    Resource& operator=(Resource&&) = default;
    /// @}
    /// Writes an anonymous object (appended when an array is open) with all ten members.
    void serialize(JsonWriter& writer) const override;
    /// Reads the members `json` carries; anything but an object describes nothing.
    void deserialize(Json::Value const& json) override;
    virtual ~Resource() = default;

    Value<std::string> href;           ///< the object's own link (what StoreClient::remove takes)
    Value<unsigned int> contentLength; ///< body bytes; 0 also when it has none yet, and when over 4 GiB (does not fit)
    Value<std::string> created;        ///< creation time, in the service's text
    Metadata metadata;                 ///< what the store request carried (the uploader's `_md5checksum` among it)
    Value<std::string> mimeType;       ///< "mimeType"
    Value<std::string> name;           ///< the object's name
    Value<std::string> type;           ///< its type ("project", "log" ...)
    Url url;                           ///< link to its download address
    Value<std::string> version;        ///< "version"
    Versions versions;                 ///< link to its version list
};

} // namespace tavix::restclient::storage
