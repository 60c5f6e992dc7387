/// @file
/// Creates stored objects in the storage service and hands back their link and a pre-signed
/// address for the object's body; also asks again for the address of an existing object and
/// deletes an object by its link.
///
/// The client holds one engine, which delivers the completion of its first request only: use
/// a new client object for every request. An operation returns the URL parser's error (and
/// sends nothing) when its address does not parse.
#pragma once

#include <restclient/Export.h>
#include <restclient/IWebRequest.h>
#include <restclient/IWebResponse.h>
#include <restclient/RequestEngine.h>
#include <restclient/Value.h>
#include <restclient/storage/Metadata.h>
#include <restclient/veltrun/TavixErrorResponse.h>

#include <boost/asio/io_context.hpp>
#include <boost/system/error_code.hpp>

#include <string>

namespace tavix::restclient::storage {

/// @brief Body of a store call: `{"resource": {"metadata": {...}, "contentType", "name", "type"}}`.
class RESTCLIENT_EXPORT StoreRequest : public IWebRequest {
public:
    /// No metadata, no name, the defaults below.
    StoreRequest();
    /// The body as compact JSON.
    std::string getPayload() const override;

    Metadata metadata;              ///< the object's metadata
    Value<std::string> contentType; ///< "binary/octet-stream" unless changed
    Value<std::string> name;        ///< the object's name
    Value<std::string> type;        ///< "project" unless changed
};

/// @brief The store call's answer: the new object's link and where to PUT its body.
class RESTCLIENT_EXPORT StoreResponse : public IWebResponse {
public:
    /// Every field empty.
    StoreResponse();
    /// Reads "href", "expires" and "url" from an object answer; anything else fills nothing.
    void handleResponse(Json::Value const& json) override;

    Value<std::string> href;    ///< the object's own link, what `remove` takes
    Value<std::string> expires; ///< when `url` stops being valid, in the service's text
    Value<std::string> url;     ///< the pre-signed address for the object's body; untrusted: check its scheme
};

/// @brief Creates stored objects, asks again for an object's upload address, deletes objects.
///
/// @note The store call creates the object at once, without its body. Until a PUT of the body to
/// StoreResponse::url succeeds, searches return an object with the file's name and no body; a
/// failed transfer leaves it so (see ResourceSearchClient for how to tell it, `remove` to delete
/// it).
///
/// @warning One object delivers exactly ONE completion in its life: a second request on it is
/// accepted (it returns success) but its answer is dropped without a callback, so a blocking wait
/// for it never ends, and nothing is logged. Use a new client object per request.
///
/// Keep the object alive until its callback has run (destroying it first drops the completion);
/// the io_context must outlive it. The callback runs on a thread that runs the io_context; what a
/// document handler or the callback throws leaves `io_context::run()` (see RestClient).
class RESTCLIENT_EXPORT StoreClient {
public:
    /// The engine; its Callback is this client's callback type.
    using Engine = RestClient<StoreResponse, veltrun::TavixErrorResponse>;

    /// The address pieces are those split from the storage service's URL: `path` starts with "/"
    /// and ends in "accounts", `accountPart` is what follows "accounts/".
    /// @param io       runs the exchange and the callback; must outlive the client
    /// @param callback called once with the answer (see RestClient::Callback)
    /// @param host, port, tls, path, accountPart the pieces of the Storage service's URL
    /// @param token    sent as "Bearer <token>", even when empty
    StoreClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host, unsigned int port,
                std::string const& token, std::string const& accountPart, bool tls, std::string const& path);
    virtual ~StoreClient() = default;

    /// POST of the request's payload to "http[s]://host:port/" + path + "/" + accountPart + "/files".
    /// A POST is never sent again on a new connection (it is not idempotent).
    /// @return the url_category() error of an address that does not parse: nothing is sent and
    /// no callback comes. Otherwise the error of starting the exchange (settings, proxy, a refused
    /// header value; also reported to the callback), or success: the answer comes to the callback.
    boost::system::error_code store(StoreRequest const& request);
    /// GET of the same base + "/project/<project>/<object>/url"; returns as store().
    boost::system::error_code get(std::string const& project, std::string const& object);
    /// DELETE of `href` (StoreResponse::href or Resource::href) exactly as given; returns as
    /// store().
    boost::system::error_code remove(std::string const& href);

private:
    std::string base() const;

    Engine m_engine;

public:
    std::string host;          ///< as given
    unsigned int port;         ///< as given
    std::string authorization; ///< "Bearer " + token
    std::string accountPart;   ///< as given
    bool tls;                  ///< https when true
    std::string path;          ///< as given
};

} // namespace tavix::restclient::storage
