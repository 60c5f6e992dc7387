#include <restclient/httplite/RegistrationClient.h>

#include <restclient/detail/RequestSetup.h>

namespace tavix::restclient::httplite {

RegistrationRequest::RegistrationRequest() : ip("ip", ""), port("port", 0) {}

std::string RegistrationRequest::getPayload() const
{
    JsonWriter writer;
    writer.startObject();
    ip.serialize(writer);
    port.serialize(writer);
    writer.endObject();
    return writer.str(false);
}

RegistrationResponse::RegistrationResponse()
    : activeCallCount("activeCallCount", 0), contact("contact", ""), contactStatus("contactStatus", false),
      createdTime("createdTime", ""), expiryTime("expiryTime", ""), ip("ip", ""), lastUpdateTime("lastUpdateTime", ""),
      linkKey("linkKey", ""), port("port", 0), validSeconds("validSeconds", 0)
{}

void RegistrationResponse::handleResponse(Json::Value const& document)
{
    activeCallCount.deserialize(document);
    contact.deserialize(document);
    contactStatus.deserialize(document);
    createdTime.deserialize(document);
    expiryTime.deserialize(document);
    ip.deserialize(document);
    lastUpdateTime.deserialize(document);
    linkKey.deserialize(document);
    port.deserialize(document);
    validSeconds.deserialize(document);
}

RegistrationClient::RegistrationClient(boost::asio::io_context& io, Engine::Callback callback, std::string const& host,
                                       unsigned int port, std::string const& token, bool tls, std::string const& path)
    : m_engine(io, std::move(callback)), m_host(host), m_port(port), m_token(token), m_tls(tls), m_path(path)
{}

boost::system::error_code RegistrationClient::updateRegistration(RegistrationRequest const& request)
{
    return send(boost::beast::http::verb::put, &request);
}

boost::system::error_code RegistrationClient::deleteRegistration()
{
    return send(boost::beast::http::verb::delete_, nullptr);
}

boost::system::error_code RegistrationClient::send(boost::beast::http::verb verb, RegistrationRequest const* body)
{
    auto const authorization = [&](net::http::Url const& url) {
        return authorizationFor(m_token, m_authCallback, std::string(boost::beast::http::to_string(verb)),
                                url.toString(), body ? body->getPayload() : std::string());
    };
    std::string const text = detail::serviceUrl(m_tls, m_host, m_port, m_path, "/registrations/current");
    if (auto ec = detail::prepareJsonRequest(m_engine, text, authorization)) return ec;
    if (body) m_engine.request().payload(body->getPayload());
    return m_engine.asyncRequest(verb);
}

} // namespace tavix::restclient::httplite
