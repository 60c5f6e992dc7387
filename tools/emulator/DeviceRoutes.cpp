#include <tools/emulator/DeviceRoutes.h>

#include <fmt/format.h>

namespace tavix::emulator {

Response geoRoute(ServiceContext const& context, RoutedRequest const& route)
{
    if (route.request.method() != http::verb::get)
        return messageReply(route.request, http::status::method_not_allowed, "Only GET is allowed here");
    Json::Value document(Json::objectValue);
    document["country"] = context.config.country;
    document["countryIso"] = context.config.countryIso;
    return jsonReply(route.request, http::status::ok, document);
}

Response RegistrationBook::handle(ServiceContext const& context, RoutedRequest const& route)
{
    Request const& request = route.request;
    if (request.method() == http::verb::delete_) {
        if (m_current.isNull())
            return errorReply(request, context.errorStyle(), http::status::not_found, SubCode::notFound,
                              "No registration", "Nothing is registered for this device");
        Json::Value removed = m_current;
        removed["contactStatus"] = false;
        removed["activeCallCount"] = 0;
        removed["validSeconds"] = 0;
        removed["lastUpdateTime"] = isoTime(now());
        removed["expiryTime"] = removed["lastUpdateTime"];
        m_current = Json::Value();
        return jsonReply(request, http::status::ok, removed);
    }
    if (request.method() != http::verb::put) return methodNotAllowed(request, context.errorStyle(), "PUT, DELETE");

    std::string error;
    auto body = parseJson(request.body(), error);
    if (!body)
        return errorReply(request, context.errorStyle(), http::status::bad_request, SubCode::malformedJson,
                          "Malformed JSON", error);
    if (!body->isObject() || !(*body)["ip"].isString() || !(*body)["port"].isInt())
        return errorReply(request, context.errorStyle(), http::status::bad_request, SubCode::invalidRequest,
                          "Invalid registration", "Expected {\"ip\": string, \"port\": integer}");

    std::string ip = (*body)["ip"].asString();
    int port = (*body)["port"].asInt();
    std::string stamp = isoTime(now());
    if (m_current.isNull()) {
        m_current = Json::Value(Json::objectValue);
        m_current["createdTime"] = stamp;
        m_current["linkKey"] = randomHex(16);
    }
    m_current["activeCallCount"] = 0;
    m_current["contact"] = fmt::format("{}:{}", ip, port);
    m_current["contactStatus"] = true;
    m_current["expiryTime"] = isoTime(now() + context.config.registrationValiditySeconds);
    m_current["ip"] = ip;
    m_current["lastUpdateTime"] = stamp;
    m_current["port"] = port;
    m_current["validSeconds"] = context.config.registrationValiditySeconds;
    return jsonReply(request, http::status::ok, m_current);
}

} // namespace tavix::emulator
