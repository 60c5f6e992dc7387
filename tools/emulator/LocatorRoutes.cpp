#include <tools/emulator/LocatorRoutes.h>

namespace tavix::emulator {
namespace {

Json::Value endpointDocument(EndpointRecord const& endpoint)
{
    Json::Value document(Json::objectValue);
    document["serviceName"] = endpoint.serviceName;
    document["endPointURLType"] = endpoint.endPointURLType;
    document["endPointURL"] = endpoint.endPointURL;
    return document;
}

} // namespace

Response locatorRoute(ServiceContext const& context, RoutedRequest const& route, std::size_t at)
{
    Request const& request = route.request;
    if (request.method() != http::verb::get) return methodNotAllowed(request, context.errorStyle(), "GET");

    Json::Value document(Json::objectValue);
    if (at + 1 == route.segments.size()) {
        Json::Value all(Json::arrayValue);
        for (EndpointRecord const& endpoint : context.endpoints) all.append(endpointDocument(endpoint));
        document["tavixServerEndpoint"] = all.size() == 1 ? all[0] : all;
        return jsonReply(request, http::status::ok, document);
    }

    // Service names are sent unescaped, so one holding "/" or "?" spans segments and query.
    std::string name = joined(route.segments.begin() + static_cast<std::ptrdiff_t>(at) + 1, route.segments.end());
    if (request.target().find('?') != boost::string_view::npos) name += "?" + route.query;
    for (EndpointRecord const& endpoint : context.endpoints) {
        if (endpoint.serviceName == name) {
            document["tavixServerEndpoint"] = endpointDocument(endpoint);
            return jsonReply(request, http::status::ok, document);
        }
    }
    return errorReply(request, context.errorStyle(), http::status::not_found, SubCode::notFound,
                      "No location for service " + name, "Unknown service name");
}

} // namespace tavix::emulator
