#include <tavix/controller/AuthenticationServiceClient.h>

#include <tavix/Logger.h>
#include <tavix/controller/OAuthHelper.h>
#include <tavix/controller/Settings.h>
#include <tavix/net/http/HttpClient.h>
#include <tavix/net/http/TlsFiles.h>

#include <boost/algorithm/string/predicate.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/beast/http/status.hpp>
#include <curl/curl.h>
#include <json/reader.h>
#include <openssl/ssl.h>

#include <chrono>
#include <climits>
#include <ctime>
#include <memory>
#include <optional>
#include <sstream>

namespace tavix::controller {

namespace {

using boost::system::error_code;
namespace http = tavix::net::http;

struct CurlStringDeleter {
    void operator()(char* text) const { curl_free(text); }
};

std::string formEncode(std::string const& text)
{
    std::unique_ptr<char, CurlStringDeleter> const escaped(curl_easy_escape(nullptr, text.data(), int(text.size())));
    if (!escaped) throw std::bad_alloc();
    return escaped.get();
}

// Parser failures (a body nested past the parser's depth limit throws) read as "not JSON".
std::optional<Json::Value> parseJson(std::string const& text)
{
    try {
        Json::Value root;
        std::istringstream in(text);
        std::string errors;
        if (Json::parseFromStream(Json::CharReaderBuilder(), in, &root, &errors)) return root;
    } catch (std::exception const&) {}
    return std::nullopt;
}

std::string stringMember(Json::Value const& object, char const* name)
{
    if (!object.isObject()) return {};
    Json::Value const& member = object[name];
    return member.isString() ? member.asString() : std::string();
}

// Stores the token of a 200 answer; the text of what is wrong with it otherwise. The
// answer's text is never quoted: it holds the token.
std::string storeToken(std::string const& appKey, std::string const& body)
{
    std::optional<Json::Value> const root = parseJson(body);
    if (!root || !root->isObject()) return "the body is not a JSON object";
    std::string const token = stringMember(*root, "access_token");
    if (token.empty()) return "no access_token";
    std::string const type = stringMember(*root, "token_type");
    if (!boost::algorithm::iequals(type, "Bearer")) return "token_type is not Bearer";
    Json::Value const& expiresIn = (*root)["expires_in"];
    if (!expiresIn.isIntegral() || expiresIn.asLargestInt() < 0 || expiresIn.asLargestInt() > LONG_MAX) {
        return "expires_in is not a non-negative whole number";
    }
    OAuthHelper::Instance().SetAuthToken(appKey, token, type, stringMember(*root, "scope"), std::time(nullptr),
                                         long(expiresIn.asLargestInt()));
    return {};
}

std::string refusalText(http::HttpResponse const& response)
{
    std::optional<Json::Value> const root = parseJson(response.payload());
    if (root) {
        for (char const* name : {"error_description", "error"}) {
            std::string const text = stringMember(*root, name);
            if (!text.empty()) return text;
        }
    }
    auto const reason = boost::beast::http::obsolete_reason(boost::beast::http::int_to_status(response.status()));
    std::string line = std::to_string(response.status());
    if (reason != "<unknown-status>") line += " " + std::string(reason);
    return line;
}

constexpr std::chrono::milliseconds kCancelCheck{100};

int authenticate(std::string const& appKey, std::string& message, boost::function<bool()> const& cancelled)
{
    error_code ec;
    std::string detail;
    Settings const settings = Settings::load(ec, &detail);
    if (ec) {
        message = "Unable to read the controller settings: " + detail;
        return ec.value();
    }
    if (settings.authUrl.empty()) {
        message = "No auth_url in the controller settings " + Settings::path() + ".";
        return int(boost::system::errc::destination_address_required);
    }
    http::Url const url = http::Url::createUrl(settings.authUrl, ec);
    if (ec) {
        message = "Invalid auth_url '" + settings.authUrl + "': " + ec.message();
        return ec.value();
    }

    http::HttpRequest request;
    request.url(url);
    request.method(boost::beast::http::verb::post);
    request.accept("application/json");
    request.contentType("application/x-www-form-urlencoded");
    request.payload("grant_type=client_credentials&client_id=" + formEncode(appKey));

    // A private loop on the calling thread: the exchange's time-outs bound the wait, and the
    // loop runs dry once the single completion has run. It runs in slices so that a caller who
    // gives up is heard.
    boost::asio::io_context io;
    http::HttpResponse response;
    error_code transport;
    bool done = false;
    http::HttpClient client(
        io, [&](http::HttpResponse const& r, error_code const& e) { response = r, transport = e, done = true; });
    client.asyncRequest(request);
    while (!done && !io.stopped()) {
        io.run_one_for(kCancelCheck);
        if (!done && cancelled && cancelled()) {
            // What is still in flight goes with the loop: its handlers are destroyed unrun.
            client.close(true);
            io.stop();
            message = "Authentication cancelled.";
            return int(boost::system::errc::operation_canceled);
        }
    }
    if (transport) {
        message = transport.message();
        std::string which;
        if (http::checkTlsFiles(settings.caFile, settings.clientCertFile, &which) == transport) message += ": " + which;
        return transport.value();
    }
    if (response.status() != 200) {
        message = refusalText(response);
        return int(response.status());
    }
    std::string const malformed = storeToken(appKey, response.payload());
    if (!malformed.empty()) {
        message = "malformed token answer: " + malformed;
        return 200;
    }
    message.clear();
    return 0;
}

} // namespace

void AuthenticationServiceClient::PrepareForExitHandlers()
{
    OPENSSL_init_ssl(0, nullptr);
    if (!Logger::hasBeenInitialized()) Logger::initialize();
    OAuthHelper::Instance();
}

int AuthenticationServiceClient::AuthenticateController(std::string const& appKey, std::string& message)
{
    return AuthenticateController(appKey, message, {});
}

int AuthenticationServiceClient::AuthenticateController(std::string const& appKey, std::string& message,
                                                        boost::function<bool()> const& cancelled)
{
    try {
        return authenticate(appKey, message, cancelled);
    } catch (std::exception const& e) {
        message = std::string("Authentication failed: ") + e.what();
        return int(boost::system::errc::io_error);
    }
}

} // namespace tavix::controller
