// The Storage service: creating objects and handing out pre-signed transfer URLs, taking the
// bodies PUT to those URLs, and the resource queries over what is stored. Not locked: its owner
// serialises access.
#pragma once

#include <tools/emulator/ObjectStore.h>
#include <tools/emulator/Routing.h>
#include <tools/emulator/UrlSigner.h>

#include <map>
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
    // PUT (upload) and GET (download) of a pre-signed …/blobs/<id> URL.
    Response blobRoute(ServiceContext const& context, RoutedRequest const& route, std::string const& id);

    // Where to stream the body of the request with this head; empty: keep it in memory. Uploads
    // go to a file, to be committed (or thrown away) when the handler sees the request.
    std::string bodyFileFor(http::request_header<> const& head);
    // Throws away a streamed body whose request was answered without reaching `blobRoute`.
    void discardPendingBody(std::string const& target);

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
    boost::filesystem::path takePendingBody(std::string const& target);

    ObjectStore m_store;
    UrlSigner m_signer;
    // Streamed bodies by request target, newest last.
    std::map<std::string, std::vector<boost::filesystem::path>> m_pendingBodies;
};

} // namespace tavix::emulator
