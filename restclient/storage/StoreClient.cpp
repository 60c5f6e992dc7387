#include <restclient/storage/StoreClient.h>

#include <restclient/storage/JsonRequest.h>

#include <fmt/format.h>

namespace tavix::restclient::storage {

using boost::beast::http::verb;
using boost::system::error_code;
using detail::acceptJson;
using detail::address;

StoreRequest::StoreRequest()
    : contentType("contentType", "binary/octet-stream"), name("name", ""), type("type", "project")
{
}

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
{
}

std::string StoreClient::base() const
{
    return fmt::format("{}://{}:{}/{}/{}", tls ? "https" : "http", host, port, path, accountPart);
}

error_code StoreClient::store(StoreRequest const& request)
{
    if (error_code ec = address(m_engine.request(), base() + "/files")) return ec;
    m_engine.authorization(authorization);
    acceptJson(m_engine.request());
    m_engine.request().payload(request.getPayload());
    return m_engine.asyncRequest(verb::post);
}

error_code StoreClient::get(std::string const& project, std::string const& object)
{
    if (error_code ec = address(m_engine.request(), fmt::format("{}/project/{}/{}/url", base(), project, object))) {
        return ec;
    }
    m_engine.authorization(authorization);
    acceptJson(m_engine.request());
    return m_engine.asyncRequest(verb::get);
}

error_code StoreClient::remove(std::string const& href)
{
    if (error_code ec = address(m_engine.request(), href)) return ec;
    m_engine.request().setField("Authorization", authorization);
    acceptJson(m_engine.request());
    return m_engine.asyncRequest(verb::delete_);
}

} // namespace tavix::restclient::storage
