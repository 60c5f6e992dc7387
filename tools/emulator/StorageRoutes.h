// The Storage service: creating objects and handing out pre-signed transfer URLs, taking the
// bodies PUT to those URLs, and the resource queries over what is stored. Not locked: its owner
// serialises access.
#pragma once

#include <tools/emulator/BodySink.h>
#include <tools/emulator/ObjectStore.h>
#include <tools/emulator/Routing.h>
#include <tools/emulator/UrlSigner.h>

#include <string>
#include <vector>

namespace tavix::emulator {

class StorageService {
public:
    explicit StorageService(boost::filesystem::path const& dataDirectory);

    // Everything below …/accounts/<id>; `rest` holds the segments after the account id.
    Response accountRoute(ServiceContext const& context, RoutedRequest const& route,
                          std::vector<std::string> const& rest);
    // The storage base itself: every object of the account.
    Response currentRoute(ServiceContext const& context, RoutedRequest const& route);
    // PUT (upload, body in memory) and GET (download) of a pre-signed …/blobs/<id> URL.
    Response blobRoute(ServiceContext const& context, RoutedRequest const& route, std::string const& id);

    // An upload is judged on its head (signature and expiry, object, content type): the
    // refusal, or nullopt when its body is welcome.
    std::optional<Response> refuseUpload(ServiceContext const& context, RoutedRequest const& route,
                                         std::string const& id) const;
    // A fresh file to stream the body for object `id` into.
    boost::filesystem::path incomingPath(std::string const& id);
    // Makes a received body the object's content when it matches the object's "_md5checksum";
    // otherwise (and on any refusal) the file is removed.
    Response commitUpload(ServiceContext const& context, RoutedRequest const& route, std::string const& id,
                          StreamedBody const& body);

    std::vector<StoredObject> objects() const { return m_store.all(); }

private:
    Response store(ServiceContext const& context, RoutedRequest const& route);
    Response search(ServiceContext const& context, RoutedRequest const& route);
    Response projectRoute(ServiceContext const& context, RoutedRequest const& route,
                          std::vector<std::string> const& rest);
    Response objectRoute(ServiceContext const& context, RoutedRequest const& route,
                         std::vector<std::string> const& rest);
    Response upload(ServiceContext const& context, RoutedRequest const& route, std::string const& id);
    Response download(ServiceContext const& context, RoutedRequest const& route, std::string const& id);

    std::optional<StoredObject> findInProject(std::string const& project, std::string const& object) const;
    Json::Value signedUrlDocument(ServiceContext const& context, StoredObject const& object,
                                  std::string const& operation) const;

    ObjectStore m_store;
    UrlSigner m_signer;
};

} // namespace tavix::emulator
