// Settings of the local cloud emulator: who may call it, what its services answer, where it
// keeps its objects. Defaults give a working cloud on a free loopback port.
#pragma once

#include <tools/emulator/HttpServer.h>
#include <tools/emulator/RandomFaults.h>

#include <json/value.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace tavix::emulator {

// One entry of the Locator service. "{baseUrl}" in `endPointURL` is replaced by the emulator's
// own base URL once it listens, so a config file can point services at the emulator itself.
struct EndpointRecord {
    std::string serviceName;
    std::string endPointURLType = "REST";
    std::string endPointURL;
};

struct UserRecord {
    std::string id;
    std::string eMail;
    std::string firstName;
    std::string lastName;
    bool extUser = false;
    bool isOwner = false;
};

// Real services send either shape; tests choose which one the emulator uses.
enum class ErrorStyle { wrapped, bare };

inline constexpr char const* kDefaultToken = "emulator-token";

struct EmulatorConfig {
    // Objects and their bodies live here; empty: a fresh temporary directory removed at the end.
    std::string dataDirectory;
    // Accepted as "Authorization: Bearer <token>"; they never expire.
    std::vector<std::string> tokens{kDefaultToken};
    // The token endpoint's "expires_in" for the tokens it hands out.
    std::chrono::seconds tokenLifetime{3600};
    // When set, a handed-out token is refused once its lifetime has passed (0: at once).
    bool enforceTokenExpiry = true;
    // The app keys the token endpoint accepts as client_id; empty: any non-empty one.
    std::vector<std::string> clientIds;
    // Whole Authorization values accepted as they are (what request-signing hooks produce).
    std::vector<std::string> authorizations;
    std::string accountId = "1001";
    // Empty: the emulator advertises its own services (ACCOUNT, STORAGE, GEO, HTTPLITE, LOCATOR).
    std::vector<EndpointRecord> endpoints;
    // Empty: one owner, "owner@example.com".
    std::vector<UserRecord> users;
    std::string country = "Norway";
    std::string countryIso = "NO";
    ErrorStyle errorStyle = ErrorStyle::wrapped;
    // Validity of pre-signed upload and download URLs; negative values give expired URLs.
    std::chrono::seconds signedUrlLifetime{3600};
    int registrationValiditySeconds = 3600;
    std::optional<TlsFiles> tls;
    // HTTPS with a throw-away CA, server and client certificate made in <dataDirectory>/certs
    // (a CA made by an earlier run is kept): they take the place of the files of `tls`, whose
    // requireClientCertificate still applies.
    bool makeCertificates = false;
    // Where it listens; the services' addresses name it, so it must be one a device can reach.
    std::string address = "127.0.0.1";
    unsigned short port = 0;
    // Faults given at random from the start (none by default); changed later through the
    // control interface.
    RandomFaults randomFaults;
    // What is kept of the requests it was sent, for tests and the control route.
    CaptureLimits capture;
    // A client that sends nothing (or stops sending) for this long loses its connection.
    std::chrono::milliseconds readTimeout{30000};
};

// Overrides the members of `config` that `document` names (keys as the member names above, TLS
// as the PEM file paths "certificate", "privateKey" and "clientCa" and the flag
// "requireClientCertificate"). Returns false with `error` set on a bad document.
bool applyConfigDocument(Json::Value const& document, EmulatorConfig& config, std::string& error);

} // namespace tavix::emulator
