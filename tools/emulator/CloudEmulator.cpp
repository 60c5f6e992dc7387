#include <tools/emulator/CloudEmulator.h>

#include <tools/emulator/PrivateFiles.h>

#include <tools/emulator/AccountRoutes.h>
#include <tools/emulator/LocatorRoutes.h>

#include <boost/filesystem/operations.hpp>

#include <algorithm>

namespace fs = boost::filesystem;

namespace tavix::emulator {

CloudEmulator::DataDirectory::DataDirectory(std::string const& configured)
    : path(configured), temporary(configured.empty())
{
    if (temporary) path = fs::temp_directory_path() / fs::unique_path("restclient-emulator-%%%%-%%%%-%%%%");
    makePrivateDirectory(path);
}

CloudEmulator::DataDirectory::~DataDirectory()
{
    boost::system::error_code ignored;
    if (temporary) fs::remove_all(path, ignored);
}

CloudEmulator::CloudEmulator(EmulatorConfig config)
    : m_config(std::move(config)), m_data(m_config.dataDirectory), m_storage(m_data.path), m_tokens(m_config),
      m_authorizations(m_config.authorizations.begin(), m_config.authorizations.end()), m_dice(m_config.randomFaults)
{
    // Held until the context is complete: a request that arrives early waits for it.
    std::lock_guard<std::mutex> lock(m_mutex);
    std::optional<TlsFiles> tls = m_config.tls;
    if (m_config.makeCertificates) {
        std::vector<std::string> names{"localhost", "127.0.0.1", "::1"};
        if (std::find(names.begin(), names.end(), m_config.address) == names.end()) names.push_back(m_config.address);
        m_certificates = makeCertificates(m_data.path / "certs", names);
        tls = TlsFiles{m_certificates->serverCertificate.string(), m_certificates->serverKey.string(),
                       m_certificates->ca.string(), tls && tls->requireClientCertificate};
    }
    m_server = std::make_unique<HttpServer>([this](Request const& request) { return handle(request); }, tls,
                                            m_config.port, m_config.address);
    m_server->setCaptureLimits(m_config.capture);
    m_server->setReadTimeout(m_config.readTimeout);
    m_server->setBodyPlanner([this](http::request_header<> const& head) { return planBody(head); });
    m_server->setFaultSource([this](Request const& request) -> std::optional<Fault> {
        auto const segments = targetSegments(std::string(request.target()));
        if ((!segments.empty() && segments[0] == "_emulator") || m_dice.spares(segments)) return std::nullopt;
        return m_dice.transportFault();
    });
    m_context = std::make_unique<ServiceContext>(m_config, m_server->baseUrl());
}

CloudEmulator::~CloudEmulator() { m_server.reset(); }

std::string CloudEmulator::baseUrl() const { return m_context->baseUrl; }
unsigned short CloudEmulator::port() const { return m_server->port(); }
HttpServer& CloudEmulator::server() { return *m_server; }
EmulatorConfig const& CloudEmulator::config() const { return m_config; }
fs::path CloudEmulator::dataDirectory() const { return m_data.path; }
std::string CloudEmulator::locatorUrl() const { return baseUrl() + "/locator/rest"; }
std::string CloudEmulator::accountUrl() const { return m_context->accountUrl; }
std::string CloudEmulator::storageUrl() const { return m_context->storageUrl; }
std::string CloudEmulator::usersUrl() const { return m_context->usersUrl; }
std::string CloudEmulator::geoUrl() const { return baseUrl() + "/geo"; }
std::string CloudEmulator::httpliteUrl() const { return baseUrl() + "/httplite"; }
std::string CloudEmulator::tokenUrl() const { return baseUrl() + "/oauth/token"; }

std::optional<CertificateSet> CloudEmulator::certificates() const { return m_certificates; }

std::string CloudEmulator::controllerSettings() const
{
    std::string text = "# restclient-emulator at " + baseUrl() + "\n";
    text += "locator_url = " + locatorUrl() + "\n";
    text += "auth_url = " + tokenUrl() + "\n";
    if (m_certificates) {
        text += "ca_file = " + fs::absolute(m_certificates->ca).string() + "\n";
        text += "client_cert_file = " + fs::absolute(m_certificates->client).string() + "\n";
    }
    return text;
}

std::string CloudEmulator::issueToken()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_tokens.issue();
}

void CloudEmulator::acceptToken(std::string const& token)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_tokens.accept(token);
}

void CloudEmulator::revokeToken(std::string const& token)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_tokens.revoke(token);
}

void CloudEmulator::acceptAuthorization(std::string const& value)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_authorizations.insert(value);
}

void CloudEmulator::scriptReply(ScriptedReply reply)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_script.push_back(std::move(reply));
}

void CloudEmulator::replyNext(unsigned status, std::string body)
{
    ScriptedReply reply;
    reply.status = status;
    reply.body = std::move(body);
    scriptReply(std::move(reply));
}

void CloudEmulator::delayNext(std::chrono::milliseconds delay) { m_server->pushFault(Fault::delayBy(delay)); }
void CloudEmulator::dropNext() { m_server->pushFault(Fault::dropConnection()); }
void CloudEmulator::silenceNext() { m_server->pushFault(Fault::neverAnswer()); }
void CloudEmulator::setRandomFaults(RandomFaults faults) { m_dice.configure(faults); }
RandomFaults CloudEmulator::randomFaults() const { return m_dice.faults(); }
FaultDice::Counts CloudEmulator::injectedFaults() const { return m_dice.injected(); }

void CloudEmulator::reset()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_script.clear();
        m_registrations.clear();
    }
    m_server->clearFaults();
    m_server->clearRequests();
}

std::vector<CapturedRequest> CloudEmulator::serviceRequests() const
{
    std::vector<CapturedRequest> requests = m_server->requests();
    requests.erase(std::remove_if(requests.begin(), requests.end(),
                                  [](CapturedRequest const& request) {
                                      auto segments = targetSegments(request.target);
                                      return !segments.empty() && segments[0] == "_emulator";
                                  }),
                   requests.end());
    return requests;
}

std::size_t CloudEmulator::tokenRequests() const
{
    auto const requests = serviceRequests();
    return static_cast<std::size_t>(std::count_if(requests.begin(), requests.end(), [](CapturedRequest const& request) {
        return endsWith(targetSegments(request.target), {"oauth", "token"});
    }));
}

std::vector<StoredObject> CloudEmulator::objects() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_storage.objects();
}

Json::Value CloudEmulator::registration() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_registrations.current();
}

std::optional<ScriptedReply> CloudEmulator::takeScriptedReply(std::string const& target)
{
    auto scripted = std::find_if(m_script.begin(), m_script.end(), [&](ScriptedReply const& reply) {
        return target.find(reply.targetContains) != std::string::npos;
    });
    if (scripted == m_script.end()) return std::nullopt;
    ScriptedReply reply = *scripted;
    m_script.erase(scripted);
    return reply;
}

Response CloudEmulator::handle(Request const& request)
{
    try {
        std::lock_guard<std::mutex> lock(m_mutex);
        RoutedRequest route = routeOf(request);
        if (!route.segments.empty() && route.segments[0] == "_emulator") return control(route);
        if (auto reply = takeScriptedReply(std::string(request.target())))
            return textReply(request, reply->status, reply->body, reply->contentType);
        if (!m_dice.spares(route.segments) && m_dice.roll(FaultDice::serverError)) return injectedServerError(request);
        return dispatch(route);
    } catch (std::exception const& e) {
        return errorReply(request, m_config.errorStyle, http::status::internal_server_error, SubCode::internal,
                          "Internal emulator error", e.what());
    }
}

std::optional<std::string> CloudEmulator::uploadTarget(RoutedRequest const& route)
{
    std::vector<std::string> const& segments = route.segments;
    if (route.request.method() != http::verb::put || segments.size() < 2 || segments[segments.size() - 2] != "blobs")
        return std::nullopt;
    return segments.back();
}

BodyPlan CloudEmulator::planBody(http::request_header<> const& head)
{
    Request const request(head);
    BodyPlan plan;
    try {
        RoutedRequest const route = routeOf(request);
        auto const id = uploadTarget(route);
        if (!id) return plan;
        std::lock_guard<std::mutex> lock(m_mutex);
        std::string const target(request.target());
        // A scripted reply is given once the body is in, however the upload would be judged.
        bool const scripted = std::any_of(m_script.begin(), m_script.end(), [&](ScriptedReply const& reply) {
            return target.find(reply.targetContains) != std::string::npos;
        });
        if (!scripted) plan.answer = m_storage.refuseUpload(*m_context, route, *id);
        if (!scripted && !plan.answer && m_dice.roll(FaultDice::serverError))
            plan.answer = injectedServerError(request);
        if (!plan.answer) {
            plan.file = m_storage.incomingPath(*id).string();
            plan.finish = [this](Request const& complete, StreamedBody const& body) {
                return finishUpload(complete, body);
            };
        }
    } catch (std::exception const& e) {
        plan.answer = errorReply(request, m_config.errorStyle, http::status::internal_server_error, SubCode::internal,
                                 "Internal emulator error", e.what());
    }
    return plan;
}

Response CloudEmulator::finishUpload(Request const& request, StreamedBody const& body)
{
    try {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (auto reply = takeScriptedReply(std::string(request.target()))) {
            boost::system::error_code ignored;
            fs::remove(body.path, ignored);
            return textReply(request, reply->status, reply->body, reply->contentType);
        }
        RoutedRequest const route = routeOf(request);
        Response stored = m_storage.commitUpload(*m_context, route, *uploadTarget(route), body);
        if (stored.result() == http::status::ok && m_dice.roll(FaultDice::dropAfterBody))
            stored.set(kDropAnswerField, "1");
        return stored;
    } catch (std::exception const& e) {
        boost::system::error_code ignored;
        fs::remove(body.path, ignored);
        return errorReply(request, m_config.errorStyle, http::status::internal_server_error, SubCode::internal,
                          "Internal emulator error", e.what());
    }
}

Response CloudEmulator::injectedServerError(Request const& request) const
{
    return errorReply(request, m_config.errorStyle, http::status::service_unavailable, SubCode::internal,
                      "Service unavailable", "An injected fault");
}

std::optional<Response> CloudEmulator::refuseUnauthorized(RoutedRequest const& route, bool geo, bool refuseAnyway) const
{
    auto field = route.request.find(http::field::authorization);
    std::string message;
    if (field == route.request.end()) {
        message = "Missing Authorization header";
    } else {
        std::string value(field->value());
        if (m_authorizations.count(value) != 0 && !refuseAnyway) return std::nullopt;
        static std::string const bearer = "Bearer ";
        auto const standing = value.compare(0, bearer.size(), bearer) == 0
            ? m_tokens.standing(value.substr(bearer.size()))
            : TokenBook::Standing::unknown;
        if (standing == TokenBook::Standing::valid && !refuseAnyway) return std::nullopt;
        message = standing == TokenBook::Standing::expired ? "Expired token" : "Invalid or expired token";
    }
    Response refused = geo ? messageReply(route.request, http::status::unauthorized, message)
                           : errorReply(route.request, m_config.errorStyle, http::status::unauthorized,
                                        SubCode::unauthorized, message, "Authenticate and send a bearer token");
    refused.set(http::field::www_authenticate, "Bearer");
    return refused;
}

Response CloudEmulator::dispatch(RoutedRequest const& route)
{
    ServiceContext const& context = *m_context;
    std::vector<std::string> const& segments = route.segments;
    std::size_t const count = segments.size();

    // Pre-signed URLs carry their own authorization.
    if (count >= 2 && segments[count - 2] == "blobs") return m_storage.blobRoute(context, route, segments.back());

    if (endsWith(segments, {"oauth", "token"})) return m_tokens.tokenRoute(route);

    bool geo = count > 0 && segments.back() == "geo";
    bool const refuseAnyway = !m_dice.spares(segments) && m_dice.roll(FaultDice::unauthorized);
    if (auto refused = refuseUnauthorized(route, geo, refuseAnyway)) return *refused;
    if (geo) return geoRoute(context, route);
    if (endsWith(segments, {"registrations", "current"})) return m_registrations.handle(context, route);
    if (auto at = std::find(segments.begin(), segments.end(), "locations"); at != segments.end())
        return locatorRoute(context, route, static_cast<std::size_t>(at - segments.begin()));
    if (endsWith(segments, {"accounts", "current"})) return currentAccountRoute(context, route);
    for (std::size_t i = 0; i + 1 < count; ++i) {
        if (segments[i] != "accounts" || segments[i + 1] != context.config.accountId) continue;
        std::vector<std::string> rest(segments.begin() + static_cast<std::ptrdiff_t>(i) + 2, segments.end());
        if (!rest.empty() && rest[0] == "users") return usersRoute(context, route, {rest.begin() + 1, rest.end()});
        bool const store = route.request.method() == http::verb::post && rest.size() == 1 && rest[0] == "files";
        if (store && m_dice.roll(FaultDice::expiredUrl)) {
            ServiceContext expiring = context;
            expiring.config.signedUrlLifetime = std::chrono::seconds(-60);
            return m_storage.accountRoute(expiring, route, rest);
        }
        return m_storage.accountRoute(context, route, rest);
    }
    if (count > 0 && segments.back() == "accounts") return m_storage.currentRoute(context, route);
    bool namesAccount = std::find(segments.begin(), segments.end(), "accounts") != segments.end();
    return errorReply(route.request, context.errorStyle(), http::status::not_found, SubCode::notFound,
                      namesAccount ? "No such account" : "No such resource", std::string(route.request.target()));
}

} // namespace tavix::emulator
