#include <tools/emulator/EmulatorConfig.h>

#include <fmt/format.h>

namespace tavix::emulator {
namespace {

bool readText(Json::Value const& document, char const* key, std::string& target, std::string& error)
{
    if (!document.isMember(key)) return true;
    if (!document[key].isString()) {
        error = fmt::format("\"{}\" must be a string", key);
        return false;
    }
    target = document[key].asString();
    return true;
}

bool readTextList(Json::Value const& document, char const* key, std::vector<std::string>& target, std::string& error)
{
    if (!document.isMember(key)) return true;
    Json::Value const& list = document[key];
    if (!list.isArray()) {
        error = fmt::format("\"{}\" must be an array of strings", key);
        return false;
    }
    target.clear();
    for (Json::Value const& item : list) {
        if (!item.isString()) {
            error = fmt::format("\"{}\" must be an array of strings", key);
            return false;
        }
        target.push_back(item.asString());
    }
    return true;
}

bool readEndpoints(Json::Value const& list, std::vector<EndpointRecord>& endpoints, std::string& error)
{
    if (!list.isArray()) {
        error = "\"endpoints\" must be an array";
        return false;
    }
    endpoints.clear();
    for (Json::Value const& item : list) {
        EndpointRecord endpoint;
        if (!item.isObject() || !readText(item, "serviceName", endpoint.serviceName, error)
            || !readText(item, "endPointURLType", endpoint.endPointURLType, error)
            || !readText(item, "endPointURL", endpoint.endPointURL, error)) {
            error = "bad entry in \"endpoints\": " + error;
            return false;
        }
        endpoints.push_back(endpoint);
    }
    return true;
}

bool readUsers(Json::Value const& list, std::vector<UserRecord>& users, std::string& error)
{
    if (!list.isArray()) {
        error = "\"users\" must be an array";
        return false;
    }
    users.clear();
    for (Json::Value const& item : list) {
        UserRecord user;
        if (!item.isObject() || !readText(item, "id", user.id, error) || !readText(item, "eMail", user.eMail, error)
            || !readText(item, "firstName", user.firstName, error)
            || !readText(item, "lastName", user.lastName, error)) {
            error = "bad entry in \"users\": " + error;
            return false;
        }
        user.extUser = item["extUser"].isBool() && item["extUser"].asBool();
        user.isOwner = item["isOwner"].isBool() && item["isOwner"].asBool();
        if (user.id.empty()) user.id = std::to_string(users.size() + 1);
        users.push_back(user);
    }
    return true;
}

bool readNumbers(Json::Value const& document, EmulatorConfig& config, std::string& error)
{
    for (char const* key : {"port", "signedUrlLifetime", "registrationValiditySeconds", "tokenLifetime"}) {
        if (document.isMember(key) && !document[key].isInt()) {
            error = fmt::format("\"{}\" must be an integer", key);
            return false;
        }
    }
    if (document.isMember("port")) {
        int port = document["port"].asInt();
        if (port < 0 || port > 65535) {
            error = "\"port\" is out of range";
            return false;
        }
        config.port = static_cast<unsigned short>(port);
    }
    if (document.isMember("signedUrlLifetime"))
        config.signedUrlLifetime = std::chrono::seconds(document["signedUrlLifetime"].asInt());
    if (document.isMember("registrationValiditySeconds"))
        config.registrationValiditySeconds = document["registrationValiditySeconds"].asInt();
    if (document.isMember("tokenLifetime")) {
        if (document["tokenLifetime"].asInt() < 0) {
            error = "\"tokenLifetime\" must not be negative";
            return false;
        }
        config.tokenLifetime = std::chrono::seconds(document["tokenLifetime"].asInt());
    }
    return true;
}

bool readFlag(Json::Value const& document, char const* key, bool& target, std::string& error)
{
    if (!document.isMember(key)) return true;
    if (!document[key].isBool()) {
        error = fmt::format("\"{}\" must be true or false", key);
        return false;
    }
    target = document[key].asBool();
    return true;
}

bool readTls(Json::Value const& document, EmulatorConfig& config, std::string& error)
{
    TlsFiles files;
    if (!readFlag(document, "requireClientCertificate", files.requireClientCertificate, error)) return false;
    if (!readText(document, "certificate", files.certificateChain, error)
        || !readText(document, "privateKey", files.privateKey, error)
        || !readText(document, "clientCa", files.clientCa, error))
        return false;
    if (files.certificateChain.empty() != files.privateKey.empty()) {
        error = "\"certificate\" and \"privateKey\" go together";
        return false;
    }
    if (!files.certificateChain.empty()) config.tls = files;
    return true;
}

} // namespace

bool applyConfigDocument(Json::Value const& document, EmulatorConfig& config, std::string& error)
{
    if (!document.isObject()) {
        error = "the configuration must be a JSON object";
        return false;
    }
    if (!readText(document, "dataDirectory", config.dataDirectory, error)
        || !readTextList(document, "tokens", config.tokens, error)
        || !readTextList(document, "authorizations", config.authorizations, error)
        || !readTextList(document, "clientIds", config.clientIds, error)
        || !readFlag(document, "enforceTokenExpiry", config.enforceTokenExpiry, error)
        || !readFlag(document, "makeCertificates", config.makeCertificates, error)
        || !readText(document, "accountId", config.accountId, error)
        || !readText(document, "address", config.address, error)
        || !readText(document, "country", config.country, error)
        || !readText(document, "countryIso", config.countryIso, error) || !readNumbers(document, config, error)
        || !readTls(document, config, error))
        return false;
    if (document.isMember("endpoints") && !readEndpoints(document["endpoints"], config.endpoints, error)) return false;
    if (document.isMember("users") && !readUsers(document["users"], config.users, error)) return false;
    if (document.isMember("randomFaults")) {
        std::string text;
        if (!readText(document, "randomFaults", text, error) || !parseRandomFaults(text, config.randomFaults, error))
            return false;
    }
    if (document.isMember("errorStyle")) {
        std::string style;
        if (!readText(document, "errorStyle", style, error) || (style != "wrapped" && style != "bare")) {
            error = "\"errorStyle\" is \"wrapped\" or \"bare\"";
            return false;
        }
        config.errorStyle = style == "bare" ? ErrorStyle::bare : ErrorStyle::wrapped;
    }
    return true;
}

} // namespace tavix::emulator
