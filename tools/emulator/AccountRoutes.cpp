#include <tools/emulator/AccountRoutes.h>

namespace tavix::emulator {
namespace {

Json::Value link(std::string const& name, std::string const& href)
{
    Json::Value entry(Json::objectValue);
    entry["@name"] = name;
    entry["@href"] = href;
    return entry;
}

} // namespace

Response currentAccountRoute(ServiceContext const& context, RoutedRequest const& route)
{
    if (route.request.method() != http::verb::get) return methodNotAllowed(route.request, context.errorStyle(), "GET");
    Json::Value links(Json::arrayValue);
    links.append(link("storage", context.storageUrl));
    links.append(link("users", context.usersUrl));
    Json::Value document(Json::objectValue);
    document["account"]["id"] = context.config.accountId;
    document["account"]["links"]["link"] = links;
    return jsonReply(route.request, http::status::ok, document);
}

Response usersRoute(ServiceContext const& context, RoutedRequest const& route, std::vector<std::string> const& rest)
{
    Request const& request = route.request;
    if (request.method() != http::verb::get) return methodNotAllowed(request, context.errorStyle(), "GET");

    Json::Value document(Json::objectValue);
    if (rest.empty()) {
        Json::Value list(Json::arrayValue);
        for (UserRecord const& user : context.users) {
            Json::Value entry(Json::objectValue);
            entry["@href"] = context.usersUrl + "/" + user.id;
            list.append(entry);
        }
        // The count travels as text, and one user as an object rather than a list of one.
        document["users"]["@totalCount"] = std::to_string(list.size());
        document["users"]["user"] = list.size() == 1 ? list[0] : list;
        return jsonReply(request, http::status::ok, document);
    }
    if (rest.size() == 1) {
        for (UserRecord const& user : context.users) {
            if (user.id != rest[0]) continue;
            Json::Value& record = document["user"];
            record["eMail"] = user.eMail;
            record["firstName"] = user.firstName;
            record["lastName"] = user.lastName;
            record["extUser"] = user.extUser;
            record["isOwner"] = user.isOwner;
            return jsonReply(request, http::status::ok, document);
        }
    }
    return errorReply(request, context.errorStyle(), http::status::not_found, SubCode::notFound, "No such user",
                      std::string(request.target()));
}

} // namespace tavix::emulator
