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

// Body of a store call: {"resource": {"metadata": {...}, "contentType", "name", "type"}}.
class RESTCLIENT_EXPORT StoreRequest : public IWebRequest {
public:
    StoreRequest();
    std::string getPayload() const override;

    Metadata metadata;
    Value<std::string> contentType; // "binary/octet-stream" unless changed
    Value<std::string> name;
    Value<std::string> type; // "project" unless changed
};

class RESTCLIENT_EXPORT StoreResponse : public IWebResponse {
public:
    StoreResponse();
    // Reads "href", "expires" and "url" from an object answer.
    void handleResponse(Json::Value const& json) override;

    Value<std::string> href;    // the object's own link, what `remove` takes
    Value<std::string> expires; // when `url` stops being valid, in the service's text
    Value<std::string> url;     // the pre-signed address for the object's body
};

class RESTCLIENT_EXPORT StoreClient {
public:
    using Engine = RestClient<StoreResponse, veltrun::TavixErrorResponse>;

    // The address pieces are those split from the storage service's URL: `path` starts with "/"
    // and ends in "accounts", `accountPart` is what follows "accounts/".
    StoreClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host, unsigned int port,
                std::string const& token, std::string const& accountPart, bool tls, std::string const& path);
    virtual ~StoreClient() = default;

    // POST of the request's payload to "http[s]://host:port/" + path + "/" + accountPart + "/files".
    boost::system::error_code store(StoreRequest const& request);
    // GET of the same base + "/project/<project>/<object>/url".
    boost::system::error_code get(std::string const& project, std::string const& object);
    // DELETE of `href` exactly as given.
    boost::system::error_code remove(std::string const& href);

private:
    std::string base() const;

    Engine m_engine;

public:
    std::string host;
    unsigned int port;
    std::string authorization; // "Bearer " + token
    std::string accountPart;
    bool tls;
    std::string path;
};

} // namespace tavix::restclient::storage
