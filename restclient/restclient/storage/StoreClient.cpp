#include <restclient/storage/StoreClient.h>

#include <restclient/detail/RequestSetup.h>

#include <fmt/format.h>

namespace tavix::restclient::storage {

using boost::beast::http::verb;
using boost::system::error_code;
using detail::prepareJsonRequest;

StoreRequest::StoreRequest()
    : contentType("contentType", "binary/octet-stream"), name("name", ""), type("type", "project")
{}

std::string StoreRequest::getPayload() const
{
    JsonWriter writer;
    writer.startObject();
    writer.startObject("resource");
    metadata.serialize(writer);
    contentType.serialize(writer);
    name.serialize(writer);
    type.serialize(writer);
    writer.endObject();
    writer.endObject();
    return writer.str(false);
}

StoreResponse::StoreResponse() : href("href", ""), expires("expires", ""), url("url", "") {}

void StoreResponse::handleResponse(Json::Value const& json)
{
    if (!json.isObject()) return;
    href.deserialize(json);
    expires.deserialize(json);
    url.deserialize(json);
}

StoreClient::StoreClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host,
                         unsigned int port, std::string const& token, std::string const& accountPart, bool tls,
                         std::string const& path)
    : m_engine(io, std::move(callback)), host(host), port(port), authorization("Bearer " + token),
      accountPart(accountPart), tls(tls), path(path)
{}

std::string StoreClient::base() const { return detail::serviceUrl(tls, host, port, path, "/" + accountPart); }

error_code StoreClient::store(StoreRequest const& request)
{
    if (error_code ec = prepareJsonRequest(m_engine, base() + "/files", authorization)) return ec;
    m_engine.request().payload(request.getPayload());
    return m_engine.asyncRequest(verb::post);
}

error_code StoreClient::get(std::string const& project, std::string const& object)
{
    std::string const text = fmt::format("{}/project/{}/{}/url", base(), project, object);
    if (error_code ec = prepareJsonRequest(m_engine, text, authorization)) return ec;
    return m_engine.asyncRequest(verb::get);
}

error_code StoreClient::remove(std::string const& href)
{
    if (error_code ec = prepareJsonRequest(m_engine, href, authorization)) return ec;
    return m_engine.asyncRequest(verb::delete_);
}

} // namespace tavix::restclient::storage
