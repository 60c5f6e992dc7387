#include <tools/emulator/Routing.h>

#include <fmt/format.h>
#include <json/reader.h>
#include <json/writer.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <random>

namespace tavix::emulator {
namespace {

int hexDigit(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string percentDecoded(std::string const& text)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && hexDigit(text[i + 1]) >= 0 && hexDigit(text[i + 2]) >= 0) {
            out += static_cast<char>(hexDigit(text[i + 1]) * 16 + hexDigit(text[i + 2]));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::string withBaseUrl(std::string text, std::string const& baseUrl)
{
    static std::string const placeholder = "{baseUrl}";
    for (auto at = text.find(placeholder); at != std::string::npos; at = text.find(placeholder, at + baseUrl.size()))
        text.replace(at, placeholder.size(), baseUrl);
    return text;
}

} // namespace

ServiceContext::ServiceContext(EmulatorConfig configuration, std::string base)
    : config(std::move(configuration)), baseUrl(std::move(base))
{
    accountUrl = baseUrl + "/account";
    storageUrl = fmt::format("{}/storage/v1/accounts/{}", baseUrl, config.accountId);
    usersUrl = fmt::format("{}/v1/rest/accounts/{}/users", accountUrl, config.accountId);
    endpoints = config.endpoints;
    if (endpoints.empty()) {
        endpoints = {{"ACCOUNT", "REST", accountUrl},
                     {"STORAGE", "REST", storageUrl},
                     {"GEO", "REST", baseUrl + "/geo"},
                     {"HTTPLITE", "REST", baseUrl + "/httplite"},
                     {"LOCATOR", "REST", baseUrl + "/locator/rest"}};
    }
    for (EndpointRecord& endpoint : endpoints) endpoint.endPointURL = withBaseUrl(endpoint.endPointURL, baseUrl);
    users = config.users;
    if (users.empty()) users.push_back({"1", "owner@example.com", "Olive", "Owner", false, true});
}

std::vector<std::string> targetSegments(std::string const& target, std::string* query)
{
    std::string path = target;
    if (auto mark = target.find('?'); mark != std::string::npos) {
        path = target.substr(0, mark);
        if (query) *query = target.substr(mark + 1);
    }
    // An absolute-form target ("http://h:p/x") names the same resource as "/x".
    if (auto scheme = path.find("://"); scheme != std::string::npos) {
        auto slash = path.find('/', scheme + 3);
        path = slash == std::string::npos ? std::string() : path.substr(slash);
    }
    std::vector<std::string> segments;
    std::size_t start = 0;
    while (start <= path.size()) {
        auto slash = path.find('/', start);
        if (slash == std::string::npos) slash = path.size();
        if (slash > start) segments.push_back(percentDecoded(path.substr(start, slash - start)));
        start = slash + 1;
    }
    return segments;
}

RoutedRequest routeOf(Request const& request)
{
    std::string query;
    auto segments = targetSegments(std::string(request.target()), &query);
    return RoutedRequest{request, std::move(segments), std::move(query)};
}

std::string joined(std::vector<std::string>::const_iterator begin, std::vector<std::string>::const_iterator end)
{
    std::string text;
    for (auto it = begin; it != end; ++it) text += (it == begin ? "" : "/") + *it;
    return text;
}

std::vector<std::pair<std::string, std::string>> queryPairs(std::string const& query)
{
    std::vector<std::pair<std::string, std::string>> pairs;
    std::size_t start = 0;
    while (start < query.size()) {
        auto amp = query.find('&', start);
        if (amp == std::string::npos) amp = query.size();
        std::string pair = query.substr(start, amp - start);
        if (!pair.empty()) {
            auto equals = pair.find('=');
            if (equals == std::string::npos) pairs.emplace_back(pair, std::string());
            else pairs.emplace_back(pair.substr(0, equals), pair.substr(equals + 1));
        }
        start = amp + 1;
    }
    return pairs;
}

std::vector<std::pair<std::string, std::string>> formPairs(std::string const& body)
{
    std::vector<std::pair<std::string, std::string>> pairs = queryPairs(body);
    for (auto& [name, value] : pairs) {
        std::replace(name.begin(), name.end(), '+', ' ');
        std::replace(value.begin(), value.end(), '+', ' ');
        name = percentDecoded(name);
        value = percentDecoded(value);
    }
    return pairs;
}

std::optional<std::string> queryValue(std::string const& query, std::string const& key)
{
    for (auto const& [name, value] : queryPairs(query))
        if (name == key) return value;
    return std::nullopt;
}

bool endsWith(std::vector<std::string> const& segments, std::vector<std::string> const& tail)
{
    if (tail.size() > segments.size()) return false;
    return std::equal(tail.begin(), tail.end(), segments.end() - static_cast<std::ptrdiff_t>(tail.size()));
}

std::optional<Json::Value> parseJson(std::string const& text, std::string& error)
{
    Json::CharReaderBuilder builder;
    builder["failIfExtra"] = true;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    if (!reader->parse(text.data(), text.data() + text.size(), &root, &error)) return std::nullopt;
    return root;
}

std::string compactJson(Json::Value const& value)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

std::string isoTime(long long secondsSinceEpoch)
{
    std::time_t t = static_cast<std::time_t>(secondsSinceEpoch);
    std::tm utc{};
    gmtime_r(&t, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

long long now() { return static_cast<long long>(std::time(nullptr)); }

std::string randomHex(std::size_t bytes)
{
    static thread_local std::mt19937_64 generator{std::random_device{}()};
    std::string out;
    for (std::size_t i = 0; i < bytes; ++i) out += fmt::format("{:02x}", static_cast<unsigned>(generator() & 0xff));
    return out;
}

Response textReply(Request const& request, unsigned status, std::string body, std::string const& contentType)
{
    Response response{static_cast<http::status>(status), request.version()};
    response.set(http::field::server, "restclient-emulator");
    if (!contentType.empty()) response.set(http::field::content_type, contentType);
    response.keep_alive(request.keep_alive());
    response.body() = std::move(body);
    response.prepare_payload();
    return response;
}

Response jsonReply(Request const& request, http::status status, Json::Value const& document)
{
    return textReply(request, static_cast<unsigned>(status), compactJson(document), "application/json");
}

Response errorReply(Request const& request, ErrorStyle style, http::status status, SubCode subCode,
                    std::string const& message, std::string const& details)
{
    Json::Value error(Json::objectValue);
    error["code"] = static_cast<unsigned>(status);
    error["subCode"] = static_cast<unsigned>(subCode);
    error["message"] = message;
    error["details"] = details;
    if (style == ErrorStyle::bare) return jsonReply(request, status, error);
    Json::Value wrapped(Json::objectValue);
    wrapped["TavixErrorResponse"] = error;
    return jsonReply(request, status, wrapped);
}

Response messageReply(Request const& request, http::status status, std::string const& message)
{
    Json::Value document(Json::objectValue);
    document["message"] = message;
    return jsonReply(request, status, document);
}

Response methodNotAllowed(Request const& request, ErrorStyle style, std::string const& allowed)
{
    Response response =
        errorReply(request, style, http::status::method_not_allowed, SubCode::methodNotAllowed,
                   fmt::format("Method {} not allowed", std::string(request.method_string())), "Allowed: " + allowed);
    response.set(http::field::allow, allowed);
    return response;
}

} // namespace tavix::emulator
