/// @file
/// Read-only clients of the storage service's catalogue: one object's description, the list
/// at a fixed address, searches and lists of an account's objects, and a pre-signed download
/// address. Every operation is a GET; arguments go into the address as they are, unescaped.
///
/// Each client holds one engine, which delivers the completion of its first request only: use
/// a new client object for every request. An operation returns the URL parser's error (and
/// sends nothing) when the composed address does not parse.
#pragma once

#include <restclient/Export.h>
#include <restclient/RequestEngine.h>
#include <restclient/storage/ResourceResponse.h>
#include <restclient/veltrun/TavixErrorResponse.h>

#include <boost/asio/io_context.hpp>
#include <boost/system/error_code.hpp>

#include <string>

namespace tavix::restclient::storage {

/// @brief One stored object's description, by project and object name (or the latest).
///
/// Addresses start with B = `http[s]://host:port/` + path; a path that begins with "/" gives a
/// doubled slash, sent as it is.
///
/// @warning One object delivers exactly ONE completion in its life: a second request on it is
/// accepted (it returns success) but its answer is dropped without a callback, so a blocking wait
/// for it never ends, and nothing is logged. Use a new client object per request.
///
/// Keep the object alive until its callback has run (destroying it first drops the completion);
/// the io_context must outlive it. The callback runs on a thread that runs the io_context; what a
/// document handler or the callback throws leaves `io_context::run()` (see RestClient).
class RESTCLIENT_EXPORT ResourceClient {
public:
    /// The engine; its Callback is this client's callback type.
    using Engine = RestClient<ResourceResponse, veltrun::TavixErrorResponse>;

    /// @param io       runs the exchange and the callback; must outlive the client
    /// @param callback called once with the answer (see RestClient::Callback)
    /// @param host, port, tls, path, accountPart the pieces split_URL cuts from the Storage
    ///        service's URL: `path` ends in "accounts", `accountPart` is what follows
    /// @param token    sent as "Bearer <token>", even when empty
    ResourceClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host, unsigned int port,
                   std::string const& token, std::string const& accountPart, bool tls, std::string const& path);
    virtual ~ResourceClient() = default;

    /// GET `B/accountPart/project/<project>/<object>`.
    /// @return the url_category() error of an address that does not parse: nothing is sent and
    /// no callback comes. Otherwise the error of starting the exchange (settings, proxy, a refused
    /// header value; also reported to the callback), or success: the answer comes to the callback.
    boost::system::error_code get(std::string const& project, std::string const& object);
    /// `get(project, "latest")`.
    boost::system::error_code latest(std::string const& project);

private:
    boost::system::error_code send(std::string const& text);

    Engine m_engine;

public:
    std::string host;          ///< as given
    unsigned int port;         ///< as given
    std::string authorization; ///< "Bearer " + token
    std::string accountPart;   ///< as given
    bool tls;                  ///< https when true
    std::string path;          ///< as given
};

/// @brief The list of objects at a fixed address (B alone).
///
/// @warning One object delivers exactly ONE completion in its life: a second request on it is
/// accepted (it returns success) but its answer is dropped without a callback, so a blocking wait
/// for it never ends, and nothing is logged. Use a new client object per request.
///
/// Keep the object alive until its callback has run (destroying it first drops the completion);
/// the io_context must outlive it. The callback runs on a thread that runs the io_context; what a
/// document handler or the callback throws leaves `io_context::run()` (see RestClient).
class RESTCLIENT_EXPORT ResourceCurrentClient {
public:
    /// The engine; its Callback is this client's callback type.
    using Engine = RestClient<ResourcesResponse, veltrun::TavixErrorResponse>;

    /// @param io       runs the exchange and the callback; must outlive the client
    /// @param callback called once with the answer (see RestClient::Callback)
    /// @param host, port, tls, path the address of the list: B (see ResourceClient)
    /// @param token    sent as "Bearer <token>", even when empty
    ResourceCurrentClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host,
                          unsigned int port, std::string const& token, bool tls, std::string const& path);
    virtual ~ResourceCurrentClient() = default;

    /// GET of B alone.
    /// @return the url_category() error of an address that does not parse: nothing is sent and
    /// no callback comes. Otherwise the error of starting the exchange (settings, proxy, a refused
    /// header value; also reported to the callback), or success: the answer comes to the callback.
    boost::system::error_code current();

private:
    Engine m_engine;

public:
    std::string host;          ///< as given
    unsigned int port;         ///< as given
    std::string authorization; ///< "Bearer " + token
    bool tls;                  ///< https when true
    std::string path;          ///< as given
};

/// @brief Searches and lists an account's objects. Arguments go into the address unescaped:
/// keep them to characters a URL carries as they are.
///
/// @note After a failed upload an object with the file's name may remain without its body:
/// the store request created it before the transfer failed, and searches return it. Tell it by
/// its `contentLength` of 0 while its `_md5checksum` metadata is that of a non-empty file; for
/// certain, ask its download address (ResourceDownloadClient on `url.href`): 404 for no body,
/// 200 for a body (an object stored empty also says 0). The upload queue removes such leftovers
/// (StoreClient::remove on `href`) before it sends the file again.
///
/// @warning One object delivers exactly ONE completion in its life: a second request on it is
/// accepted (it returns success) but its answer is dropped without a callback, so a blocking wait
/// for it never ends, and nothing is logged. Use a new client object per request.
///
/// Keep the object alive until its callback has run (destroying it first drops the completion);
/// the io_context must outlive it. The callback runs on a thread that runs the io_context; what a
/// document handler or the callback throws leaves `io_context::run()` (see RestClient).
class RESTCLIENT_EXPORT ResourceSearchClient {
public:
    /// The engine; its Callback is this client's callback type.
    using Engine = RestClient<ResourcesResponse, veltrun::TavixErrorResponse>;

    /// @param io       runs the exchange and the callback; must outlive the client
    /// @param callback called once with the answer (see RestClient::Callback)
    /// @param host, port, tls, path, accountPart the pieces split_URL cuts from the Storage
    ///        service's URL: `path` ends in "accounts", `accountPart` is what follows
    /// @param token    sent as "Bearer <token>", even when empty
    ResourceSearchClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host,
                         unsigned int port, std::string const& token, std::string const& accountPart, bool tls,
                         std::string const& path);
    virtual ~ResourceSearchClient() = default;

    /// GET `B/accountPart`: every object of the account.
    /// @return the url_category() error of an address that does not parse: nothing is sent and
    /// no callback comes. Otherwise the error of starting the exchange (settings, proxy, a refused
    /// header value; also reported to the callback), or success: the answer comes to the callback.
    boost::system::error_code search();
    /// GET `B/accountPart/files?_s=type==<type>` (only this search puts "/files" before its
    /// query); returns as search().
    boost::system::error_code searchType(std::string const& type);
    /// GET `B/accountPart?_s=prefix==<project>`: names that begin so; returns as search().
    boost::system::error_code searchProject(std::string const& project);
    /// GET `B/accountPart?_s=type==<type>,prefix==<project>`; returns as search().
    boost::system::error_code searchTypeProject(std::string const& type, std::string const& project);
    /// GET `B/accountPart/files/<scope>/<project>`; returns as search().
    boost::system::error_code list(std::string const& scope, std::string const& project);
    /// `list("project", project)`.
    boost::system::error_code list(std::string const& project);

private:
    // GET of B/accountPart followed by `tail`.
    boost::system::error_code send(std::string const& tail);

    Engine m_engine;

public:
    std::string host;          ///< as given
    unsigned int port;         ///< as given
    std::string authorization; ///< "Bearer " + token
    std::string accountPart;   ///< as given
    bool tls;                  ///< https when true
    std::string path;          ///< as given
};

/// @brief Asks for an object's pre-signed download address. A 404 answer means the object has no
/// body (see ResourceSearchClient on leftovers of failed uploads).
///
/// @warning One object delivers exactly ONE completion in its life: a second request on it is
/// accepted (it returns success) but its answer is dropped without a callback, so a blocking wait
/// for it never ends, and nothing is logged. Use a new client object per request.
///
/// Keep the object alive until its callback has run (destroying it first drops the completion);
/// the io_context must outlive it. The callback runs on a thread that runs the io_context; what a
/// document handler or the callback throws leaves `io_context::run()` (see RestClient).
class RESTCLIENT_EXPORT ResourceDownloadClient {
public:
    /// The engine; its Callback is this client's callback type.
    using Engine = RestClient<URLResponse, veltrun::TavixErrorResponse>;

    /// @param io       runs the exchange and the callback; must outlive the client
    /// @param callback called once with the answer (see RestClient::Callback)
    ResourceDownloadClient(boost::asio::io_context& io, Engine::Callback callback);
    virtual ~ResourceDownloadClient() = default;

    /// GET of `url` (a Resource's `url.href`) exactly as given, with "Bearer " + `token`.
    /// @return the url_category() error of an address that does not parse: nothing is sent and
    /// no callback comes. Otherwise the error of starting the exchange (settings, proxy, a refused
    /// header value; also reported to the callback), or success: the answer comes to the callback.
    boost::system::error_code getDownloadURL(std::string const& url, std::string const& token);

private:
    Engine m_engine;
};

} // namespace tavix::restclient::storage
