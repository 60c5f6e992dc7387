#include <restclient/storage/ResourceClient.h>

#include <restclient/detail/RequestSetup.h>

#include <fmt/format.h>

namespace tavix::restclient::storage {

using boost::beast::http::verb;
using boost::system::error_code;
using detail::prepareJsonRequest;
using detail::serviceUrl;

ResourceClient::ResourceClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host,
                               unsigned int port, std::string const& token, std::string const& accountPart, bool tls,
                               std::string const& path)
    : m_engine(io, std::move(callback)), host(host), port(port), authorization("Bearer " + token),
      accountPart(accountPart), tls(tls), path(path)
{}

error_code ResourceClient::get(std::string const& project, std::string const& object)
{
    return send(serviceUrl(tls, host, port, path, fmt::format("/{}/project/{}/{}", accountPart, project, object)));
}

error_code ResourceClient::latest(std::string const& project) { return get(project, "latest"); }

error_code ResourceClient::send(std::string const& text)
{
    if (error_code ec = prepareJsonRequest(m_engine, text, authorization)) return ec;
    return m_engine.asyncRequest(verb::get);
}

ResourceCurrentClient::ResourceCurrentClient(boost::asio::io_context& io, Engine::Callback callback,
                                             std::string const& host, unsigned int port, std::string const& token,
                                             bool tls, std::string const& path)
    : m_engine(io, std::move(callback)), host(host), port(port), authorization("Bearer " + token), tls(tls), path(path)
{}

error_code ResourceCurrentClient::current()
{
    if (error_code ec = prepareJsonRequest(m_engine, serviceUrl(tls, host, port, path), authorization)) return ec;
    return m_engine.asyncRequest(verb::get);
}

ResourceSearchClient::ResourceSearchClient(boost::asio::io_context& io, Engine::Callback callback,
                                           std::string const& host, unsigned int port, std::string const& token,
                                           std::string const& accountPart, bool tls, std::string const& path)
    : m_engine(io, std::move(callback)), host(host), port(port), authorization("Bearer " + token),
      accountPart(accountPart), tls(tls), path(path)
{}

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
    std::string const text = serviceUrl(tls, host, port, path, "/" + accountPart + tail);
    if (error_code ec = prepareJsonRequest(m_engine, text, authorization)) return ec;
    return m_engine.asyncRequest(verb::get);
}

ResourceDownloadClient::ResourceDownloadClient(boost::asio::io_context& io, Engine::Callback callback)
    : m_engine(io, std::move(callback))
{}

error_code ResourceDownloadClient::getDownloadURL(std::string const& url, std::string const& token)
{
    if (error_code ec = prepareJsonRequest(m_engine, url, "Bearer " + token)) return ec;
    return m_engine.asyncRequest(verb::get);
}

} // namespace tavix::restclient::storage
