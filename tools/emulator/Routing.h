// Request parsing and reply building shared by the emulator's services. Clients compose URLs
// with doubled slashes and unescaped query text, so routes look at the path with repeated
// slashes collapsed, segment by segment, and at the query as raw text.
#pragma once

#include <tools/emulator/EmulatorConfig.h>
#include <tools/emulator/HttpServer.h>

#include <json/value.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tavix::emulator {

// What every service needs to know about the emulator it runs in, fixed once it listens.
struct ServiceContext {
    EmulatorConfig config;
    std::string baseUrl;                   // "http://127.0.0.1:<port>"
    std::string accountUrl;                // what the Locator gives for ACCOUNT: <baseUrl>/account
    std::string storageUrl;                // the account's "storage" link: <baseUrl>/storage/v1/accounts/<id>
    std::string usersUrl;                  // the account's "users" link
    std::vector<EndpointRecord> endpoints; // "{baseUrl}" filled in
    std::vector<UserRecord> users;         // never empty

    ServiceContext(EmulatorConfig config, std::string baseUrl);
    ErrorStyle errorStyle() const { return config.errorStyle; }
};

struct RoutedRequest {
    Request const& request;
    std::vector<std::string> segments; // non-empty path segments, percent-decoded
    std::string query;                 // text after the first "?", as sent
};

RoutedRequest routeOf(Request const& request);
// The segments and query of a request target, as `routeOf` cuts them.
std::vector<std::string> targetSegments(std::string const& target, std::string* query = nullptr);
std::string joined(std::vector<std::string>::const_iterator begin, std::vector<std::string>::const_iterator end);

// "a=1&b=x==y" → {"a","1"}, {"b","x==y"}: only the first "=" of a pair separates.
std::vector<std::pair<std::string, std::string>> queryPairs(std::string const& query);
std::optional<std::string> queryValue(std::string const& query, std::string const& key);
// An "application/x-www-form-urlencoded" body as name/value pairs, percent- and "+"-decoded.
std::vector<std::pair<std::string, std::string>> formPairs(std::string const& body);

bool endsWith(std::vector<std::string> const& segments, std::vector<std::string> const& tail);

// Parses a request body; nullopt with `error` set when it is not JSON.
std::optional<Json::Value> parseJson(std::string const& text, std::string& error);
std::string compactJson(Json::Value const& value);

// Seconds since the epoch as "2024-05-01T12:00:00Z".
std::string isoTime(long long secondsSinceEpoch);
long long now();

std::string randomHex(std::size_t bytes);

// Sub-codes of the emulator's error documents, one per kind of failure.
enum class SubCode : unsigned {
    none = 0,
    unauthorized = 1,
    malformedJson = 2,
    invalidRequest = 3,
    badSignature = 4,
    notFound = 5,
    methodNotAllowed = 6,
    scripted = 7,
    badChecksum = 8,
    internal = 9,
    unsupportedMediaType = 10,
};

// The only body type the pre-signed upload target takes.
inline constexpr char const* kUploadContentType = "binary/octet-stream";

Response jsonReply(Request const& request, http::status status, Json::Value const& document);
Response textReply(Request const& request, unsigned status, std::string body, std::string const& contentType);
// The platform's structured error, wrapped or bare by `style`.
Response errorReply(Request const& request, ErrorStyle style, http::status status, SubCode subCode,
                    std::string const& message, std::string const& details = {});
// The geo service's error shape: {"message": ...}.
Response messageReply(Request const& request, http::status status, std::string const& message);
Response methodNotAllowed(Request const& request, ErrorStyle style, std::string const& allowed);

} // namespace tavix::emulator
