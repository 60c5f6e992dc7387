// A local stand-in for the cloud: Locator, Account (with users), Storage (objects, pre-signed
// transfers, resource queries), geo and httplite registration, served over real HTTP(S) on
// loopback with the wire formats of the real services. Tests and scripts run it to exercise the
// clients end to end; it can be told to answer the next request with a chosen status and body,
// or to delay, drop or ignore it.
//
// Every path is routed by its suffix with repeated slashes collapsed, so any base path works:
//   …/locations, …/locations/<name>                        Locator (GET)
//   …/accounts/current                                     Account (GET)
//   …/accounts/<id>/users, …/accounts/<id>/users/<user>    Account users (GET)
//   …/geo                                                  Geo (GET)
//   …/registrations/current                                httplite (PUT, DELETE)
//   …/accounts/<id>[/files][?_s=type==T,prefix==P]         search (GET); POST …/files stores
//   …/accounts/<id>/files/<scope>/<project>                list (GET)
//   …/accounts/<id>/project/<p>/<o|latest>[/url]           one resource, or a new upload URL (GET)
//   …/accounts/<id>/objects/<oid>[/url|/versions]          object link: GET, DELETE; download URL
//   …/accounts                                             the storage base ("current") (GET)
//   /blobs/<oid>?op=…&expires=…&signature=…                pre-signed body transfer (PUT, GET)
//   …/oauth/token                                          token endpoint (POST, client credentials)
//   /_emulator/…                                           control interface, no authorization
//
// The upload target takes "Content-Type: binary/octet-stream" only (415), within the URL's
// expiry and with its signature (403); it streams the body to disk with its MD5, which must
// match the object's "_md5checksum" when it has one (400, nothing kept); then the object holds
// the bytes and their size. Refusals come before the body is asked for. Service routes take a
// configured token (never expires), one from the token endpoint (expires when enforced), or a
// configured Authorization value.
//
// Random faults (RandomFaults.h) hit service requests, never control ones: drops and stalls
// any of them, 503 any of them (an upload before its body is read), 401 those that take a
// bearer token, an expired upload URL the answers to store requests, and drop-after-body the
// uploads whose body was stored: the connection closes instead of the 200.
#pragma once

#include <tools/emulator/Certificates.h>
#include <tools/emulator/DeviceRoutes.h>
#include <tools/emulator/EmulatorConfig.h>
#include <tools/emulator/HttpServer.h>
#include <tools/emulator/ObjectStore.h>
#include <tools/emulator/Routing.h>
#include <tools/emulator/StorageRoutes.h>
#include <tools/emulator/TokenRoutes.h>

#include <boost/filesystem/path.hpp>

#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace tavix::emulator {

// An answer given instead of the service's own.
struct ScriptedReply {
    unsigned status = 200;
    std::string body;
    std::string contentType = "application/json";
    // Only a request whose target contains this text takes the reply; empty: the next request.
    std::string targetContains;
};

class CloudEmulator {
public:
    // Loads the objects of the data directory and starts serving at once. Throws when the data
    // directory, the certificates or the port can't be used.
    explicit CloudEmulator(EmulatorConfig config = {});
    CloudEmulator(CloudEmulator const&) = delete;
    CloudEmulator& operator=(CloudEmulator const&) = delete;
    // Stops serving; a temporary data directory is removed.
    ~CloudEmulator();

    std::string baseUrl() const;
    unsigned short port() const;
    HttpServer& server();
    EmulatorConfig const& config() const;
    boost::filesystem::path dataDirectory() const;

    // The addresses the emulator gives out for its services.
    std::string locatorUrl() const;  // <baseUrl>/locator/rest
    std::string accountUrl() const;  // <baseUrl>/account (clients add "/v1/rest")
    std::string storageUrl() const;  // <baseUrl>/storage/v1/accounts/<id>
    std::string usersUrl() const;    // <baseUrl>/account/v1/rest/accounts/<id>/users
    std::string geoUrl() const;      // <baseUrl>/geo
    std::string httpliteUrl() const; // <baseUrl>/httplite
    std::string tokenUrl() const;    // <baseUrl>/oauth/token

    // The certificates it made (EmulatorConfig::makeCertificates), else nullopt.
    std::optional<CertificateSet> certificates() const;
    // The controller settings file ("key = value" lines) that points a device here: the
    // Locator, the token endpoint and, when it made them, the CA and client certificate.
    std::string controllerSettings() const;

    // A new bearer token the emulator accepts from now on, as the token endpoint hands out
    // (it expires likewise).
    std::string issueToken();
    // A token accepted from now on that never expires.
    void acceptToken(std::string const& token);
    void revokeToken(std::string const& token);
    // A whole Authorization value accepted as it is.
    void acceptAuthorization(std::string const& value);

    // Scripted behaviour, one request each, in the order given. Replies are the emulator's;
    // delay, drop and silence are transport faults of the server and hit the next requests
    // whatever they are.
    void scriptReply(ScriptedReply reply);
    void replyNext(unsigned status, std::string body);
    void delayNext(std::chrono::milliseconds delay);
    void dropNext();
    void silenceNext();
    // Random faults from now on, drawn afresh from their seed; the counts start over.
    void setRandomFaults(RandomFaults faults);
    RandomFaults randomFaults() const;
    FaultDice::Counts injectedFaults() const;
    // Forgets scripted replies, faults, captured requests and the registration; keeps objects.
    void reset();

    // Requests seen by the services (control requests left out), in arrival order.
    std::vector<CapturedRequest> serviceRequests() const;
    // How many of them went to the token endpoint (refused and scripted ones included).
    std::size_t tokenRequests() const;
    std::vector<StoredObject> objects() const;
    Json::Value registration() const; // null when nothing is registered

    // The request → reply logic the server runs; usable without the network.
    Response handle(Request const& request);

private:
    struct DataDirectory {
        boost::filesystem::path path;
        bool temporary = false;
        explicit DataDirectory(std::string const& configured);
        ~DataDirectory();
    };

    std::optional<ScriptedReply> takeScriptedReply(std::string const& target);
    // The object id of a PUT to a pre-signed upload URL.
    static std::optional<std::string> uploadTarget(RoutedRequest const& route);
    // Uploads stream to disk: refused on their head, or committed once the body is in.
    BodyPlan planBody(http::request_header<> const& head);
    Response finishUpload(Request const& request, StreamedBody const& body);
    Response dispatch(RoutedRequest const& route);
    // `refuseAnyway`: an injected 401, whatever the request carries.
    std::optional<Response> refuseUnauthorized(RoutedRequest const& route, bool geo, bool refuseAnyway) const;
    Response injectedServerError(Request const& request) const;
    Response control(RoutedRequest const& route);
    Response randomFaultsRoute(Request const& request);

    EmulatorConfig const m_config;
    DataDirectory m_data;
    std::optional<CertificateSet> m_certificates;
    mutable std::mutex m_mutex;
    StorageService m_storage;
    RegistrationBook m_registrations;
    TokenBook m_tokens;
    std::set<std::string> m_authorizations;
    std::deque<ScriptedReply> m_script;
    FaultDice m_dice;
    std::unique_ptr<ServiceContext> m_context;
    // Last, so that it stops before the state its handler uses goes away.
    std::unique_ptr<HttpServer> m_server;
};

} // namespace tavix::emulator
