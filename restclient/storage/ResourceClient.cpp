#include <restclient/storage/ResourceClient.h>

#include <restclient/storage/JsonRequest.h>

#include <fmt/format.h>

namespace tavix::restclient::storage {

namespace {

using boost::beast::http::verb;
using boost::system::error_code;
using detail::acceptJson;
using detail::address;

std::string base(bool tls, std::string const& host, unsigned int port, std::string const& path)
{
    return fmt::format("{}://{}:{}/{}", tls ? "https" : "http", host, port, path);
}

} // namespace

ResourceClient::ResourceClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host,
                               unsigned int port, std::string const& token, std::string const& accountPart, bool tls,
                               std::string const& path)
    : m_engine(io, std::move(callback)), host(host), port(port), authorization("Bearer " + token),
      accountPart(accountPart), tls(tls), path(path)
{
}

error_code ResourceClient::get(std::string const& project, std::string const& object)
{
    return send(fmt::format("{}/{}/project/{}/{}", base(tls, host, port, path), accountPart, project, object));
}

error_code ResourceClient::latest(std::string const& project) { return get(project, "latest"); }

error_code ResourceClient::send(std::string const& text)
{
    if (error_code ec = address(m_engine.request(), text)) return ec;
    m_engine.request().setField("Authorization", authorization);
    acceptJson(m_engine.request());
    return m_engine.asyncRequest(verb::get);
}

ResourceCurrentClient::ResourceCurrentClient(boost::asio::io_context& io, Engine::Callback callback,
                                             std::string const& host, unsigned int port, std::string const& token,
                                             bool tls, std::string const& path)
    : m_engine(io, std::move(callback)), host(host), port(port), authorization("Bearer " + token), tls(tls), path(path)
{
}

error_code ResourceCurrentClient::current()
{
    if (error_code ec = address(m_engine.request(), base(tls, host, port, path))) return ec;
    m_engine.authorization(authorization);
    acceptJson(m_engine.request());
    return m_engine.asyncRequest(verb::get);
}

ResourceSearchClient::ResourceSearchClient(boost::asio::io_context& io, Engine::Callback callback,
                                           std::string const& host, unsigned int port, std::string const& token,
                                           std::string const& accountPart, bool tls, std::string const& path)
    : m_engine(io, std::move(callback)), host(host), port(port), authorization("Bearer " + token),
      accountPart(accountPart), tls(tls), path(path)
{
}

error_code ResourceSearchClient::search() { return send(""); }

error_code ResourceSearchClient::searchType(std::string const& type) { return send("/files?_s=type==" + type); }

error_code ResourceSearchClient::searchProject(std::string const& project) { return send("?_s=prefix==" + project); }

error_code ResourceSearchClient::searchTypeProject(std::string const& type, std::string const& project)
{
    return send(fmt::format("?_s=type=={},prefix=={}", type, project));
}

error_code ResourceSearchClient::list(std::string const& scope, std::string const& project)
{
    return send(fmt::format("/files/{}/{}", scope, project));
}

error_code ResourceSearchClient::list(std::string const& project) { return list("project", project); }

error_code ResourceSearchClient::send(std::string const& tail)
{
    std::string const text = fmt::format("{}/{}{}", base(tls, host, port, path), accountPart, tail);
    if (error_code ec = address(m_engine.request(), text)) return ec;
    m_engine.authorization(authorization);
    acceptJson(m_engine.request());
    return m_engine.asyncRequest(verb::get);
}

ResourceDownloadClient::ResourceDownloadClient(boost::asio::io_context& io, Engine::Callback callback)
    : m_engine(io, std::move(callback))
{
}

error_code ResourceDownloadClient::getDownloadURL(std::string const& url, std::string const& token)
{
    if (error_code ec = address(m_engine.request(), url)) return ec;
    m_engine.request().setField("Authorization", "Bearer " + token);
    acceptJson(m_engine.request());
    return m_engine.asyncRequest(verb::get);
}

} // namespace tavix::restclient::storage
