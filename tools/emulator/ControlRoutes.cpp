// The control interface under /_emulator/, for scripts and the command-line tool:
//   POST /_emulator/next-reply {"status": 401, "body": {...} or "text", "contentType": ..., "match": ...}
//   POST /_emulator/fault {"kind": "delay" | "drop" | "silence", "ms": 500}
//   GET  /_emulator/requests   the captured service requests, credentials masked
//   POST /_emulator/reset      forget scripts, faults, captured requests and the registration
//   POST /_emulator/token      issue a new bearer token
//   POST /_emulator/faults     random faults from now on, in their text form ("drop=0.02,5xx=0.01,seed=7")
//   GET  /_emulator/faults     {"faults": <text form>, "injected": {"drop": n, "stall": n, ...}}
#include <tools/emulator/CloudEmulator.h>

#include <restclient/detail/MaskToken.h>

#include <boost/beast/core/string.hpp>

namespace tavix::emulator {
namespace {

// Credentials as the library logs them: the scheme, then the token masked.
std::string masked(std::string const& name, std::string const& value)
{
    if (!boost::beast::iequals(name, "Authorization") && !boost::beast::iequals(name, "Proxy-Authorization"))
        return value;
    std::string::size_type const space = value.find(' ');
    if (space == std::string::npos) return restclient::detail::maskToken(value);
    return value.substr(0, space + 1) + restclient::detail::maskToken(value.substr(space + 1));
}

Json::Value requestDocument(CapturedRequest const& captured)
{
    Json::Value document(Json::objectValue);
    document["method"] = captured.method;
    document["target"] = captured.target;
    document["headers"] = Json::Value(Json::arrayValue);
    for (auto const& [name, value] : captured.headers) {
        Json::Value header(Json::arrayValue);
        header.append(name);
        header.append(masked(name, value));
        document["headers"].append(header);
    }
    document["body"] = captured.body;
    document["bodySize"] = Json::UInt64(captured.bodySize);
    return document;
}

std::optional<ScriptedReply> scriptedReplyOf(Json::Value const& document, std::string& error)
{
    if (!document.isObject() || !document["status"].isUInt() || document["status"].asUInt() < 100
        || document["status"].asUInt() > 599) {
        error = "expected {\"status\": 100..599, \"body\": ...}";
        return std::nullopt;
    }
    for (char const* key : {"contentType", "match"}) {
        if (document.isMember(key) && !document[key].isString()) {
            error = std::string("\"") + key + "\" must be a string";
            return std::nullopt;
        }
    }
    ScriptedReply reply;
    reply.status = document["status"].asUInt();
    Json::Value const& body = document["body"];
    reply.body = body.isString() ? body.asString() : body.isNull() ? std::string() : compactJson(body);
    reply.contentType = document.get("contentType", reply.contentType).asString();
    reply.targetContains = document.get("match", "").asString();
    return reply;
}

std::optional<Fault> faultOf(Json::Value const& document, std::string& error)
{
    std::string kind = document.isObject() && document["kind"].isString() ? document["kind"].asString() : "";
    if (kind == "drop") return Fault::dropConnection();
    if (kind == "silence") return Fault::neverAnswer();
    if (kind == "delay" && document["ms"].isUInt())
        return Fault::delayBy(std::chrono::milliseconds(document["ms"].asUInt()));
    error = "expected {\"kind\": \"delay\", \"ms\": n}, {\"kind\": \"drop\"} or {\"kind\": \"silence\"}";
    return std::nullopt;
}

} // namespace

Response CloudEmulator::control(RoutedRequest const& route)
{
    Request const& request = route.request;
    std::string action = route.segments.size() == 2 ? route.segments[1] : std::string();
    bool const get = request.method() == http::verb::get;
    bool const post = request.method() == http::verb::post;

    if (action == "requests") {
        if (!get) return methodNotAllowed(request, m_config.errorStyle, "GET");
        Json::Value document(Json::objectValue);
        document["requests"] = Json::Value(Json::arrayValue);
        for (CapturedRequest const& captured : m_server->requests()) {
            auto segments = targetSegments(captured.target);
            if (segments.empty() || segments[0] != "_emulator") document["requests"].append(requestDocument(captured));
        }
        return jsonReply(request, http::status::ok, document);
    }
    if (action == "faults") return randomFaultsRoute(request);
    if (action != "next-reply" && action != "fault" && action != "reset" && action != "token")
        return errorReply(request, m_config.errorStyle, http::status::not_found, SubCode::notFound,
                          "No such control operation", std::string(request.target()));
    if (!post) return methodNotAllowed(request, m_config.errorStyle, "POST");

    Json::Value done(Json::objectValue);
    if (action == "reset") {
        m_script.clear();
        m_registrations.clear();
        m_server->clearFaults();
        m_server->clearRequests();
        return jsonReply(request, http::status::ok, done);
    }
    if (action == "token") {
        done["token"] = m_tokens.issue();
        return jsonReply(request, http::status::ok, done);
    }

    std::string error;
    auto body = parseJson(request.body(), error);
    if (!body)
        return errorReply(request, m_config.errorStyle, http::status::bad_request, SubCode::malformedJson,
                          "Malformed JSON", error);
    if (action == "next-reply") {
        auto reply = scriptedReplyOf(*body, error);
        if (!reply)
            return errorReply(request, m_config.errorStyle, http::status::bad_request, SubCode::invalidRequest,
                              "Invalid scripted reply", error);
        m_script.push_back(*reply);
        done["queued"] = static_cast<Json::UInt64>(m_script.size());
        return jsonReply(request, http::status::ok, done);
    }
    auto fault = faultOf(*body, error);
    if (!fault)
        return errorReply(request, m_config.errorStyle, http::status::bad_request, SubCode::invalidRequest,
                          "Invalid fault", error);
    m_server->pushFault(*fault);
    return jsonReply(request, http::status::ok, done);
}

Response CloudEmulator::randomFaultsRoute(Request const& request)
{
    if (request.method() == http::verb::post) {
        RandomFaults faults;
        std::string error;
        if (!parseRandomFaults(request.body(), faults, error))
            return errorReply(request, m_config.errorStyle, http::status::bad_request, SubCode::invalidRequest,
                              "Invalid faults", error);
        m_dice.configure(faults);
    } else if (request.method() != http::verb::get) {
        return methodNotAllowed(request, m_config.errorStyle, "GET, POST");
    }
    Json::Value document(Json::objectValue);
    document["faults"] = formatRandomFaults(m_dice.faults());
    FaultDice::Counts const injected = m_dice.injected();
    for (int kind = 0; kind < FaultDice::kindCount; ++kind)
        document["injected"][FaultDice::name(FaultDice::Kind(kind))] = Json::UInt64(injected[kind]);
    return jsonReply(request, http::status::ok, document);
}

} // namespace tavix::emulator
