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

// Addresses below start with B = "http[s]://host:port/" + path; a path that begins with "/"
// gives a doubled slash, sent as it is.

class RESTCLIENT_EXPORT ResourceClient {
public:
    using Engine = RestClient<ResourceResponse, veltrun::TavixErrorResponse>;

    ResourceClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host, unsigned int port,
                   std::string const& token, std::string const& accountPart, bool tls, std::string const& path);
    virtual ~ResourceClient() = default;

    // B/accountPart/project/<project>/<object>
    boost::system::error_code get(std::string const& project, std::string const& object);
    // get(project, "latest")
    boost::system::error_code latest(std::string const& project);

private:
    boost::system::error_code send(std::string const& text);

    Engine m_engine;

public:
    std::string host;
    unsigned int port;
    std::string authorization; // "Bearer " + token
    std::string accountPart;
    bool tls;
    std::string path;
};

class RESTCLIENT_EXPORT ResourceCurrentClient {
public:
    using Engine = RestClient<ResourcesResponse, veltrun::TavixErrorResponse>;

    ResourceCurrentClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host,
                          unsigned int port, std::string const& token, bool tls, std::string const& path);
    virtual ~ResourceCurrentClient() = default;

    // B alone.
    boost::system::error_code current();

private:
    Engine m_engine;

public:
    std::string host;
    unsigned int port;
    std::string authorization;
    bool tls;
    std::string path;
};

class RESTCLIENT_EXPORT ResourceSearchClient {
public:
    using Engine = RestClient<ResourcesResponse, veltrun::TavixErrorResponse>;

    ResourceSearchClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host,
                         unsigned int port, std::string const& token, std::string const& accountPart, bool tls,
                         std::string const& path);
    virtual ~ResourceSearchClient() = default;

    // B/accountPart
    boost::system::error_code search();
    // B/accountPart/files?_s=type==<type> (only this search puts "/files" before its query)
    boost::system::error_code searchType(std::string const& type);
    // B/accountPart?_s=prefix==<project>
    boost::system::error_code searchProject(std::string const& project);
    // B/accountPart?_s=type==<type>,prefix==<project>
    boost::system::error_code searchTypeProject(std::string const& type, std::string const& project);
    // B/accountPart/files/<scope>/<project>
    boost::system::error_code list(std::string const& scope, std::string const& project);
    // list("project", project)
    boost::system::error_code list(std::string const& project);

private:
    // GET of B/accountPart followed by `tail`.
    boost::system::error_code send(std::string const& tail);

    Engine m_engine;

public:
    std::string host;
    unsigned int port;
    std::string authorization;
    std::string accountPart;
    bool tls;
    std::string path;
};

class RESTCLIENT_EXPORT ResourceDownloadClient {
public:
    using Engine = RestClient<URLResponse, veltrun::TavixErrorResponse>;

    ResourceDownloadClient(boost::asio::io_context& io, Engine::Callback callback);
    virtual ~ResourceDownloadClient() = default;

    // GET of `url` exactly as given, with "Bearer " + `token`.
    boost::system::error_code getDownloadURL(std::string const& url, std::string const& token);

private:
    Engine m_engine;
};

} // namespace tavix::restclient::storage
