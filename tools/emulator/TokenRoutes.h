// Bearer tokens and the OAuth 2.0 token endpoint (client credentials grant) that hands them
// out. Tokens of the configuration never expire; handed-out ones live for the configured
// lifetime. Not locked: its owner serialises access.
#pragma once

#include <tools/emulator/Routing.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>

namespace tavix::emulator {

class TokenBook {
public:
    explicit TokenBook(EmulatorConfig const& config);

    enum class Standing { valid, expired, unknown };
    Standing standing(std::string const& token) const;

    std::string issue();                   // expires like a handed-out token
    void accept(std::string const& token); // never expires
    void revoke(std::string const& token);

    // POST …/oauth/token with "grant_type=client_credentials&client_id=<app key>".
    Response tokenRoute(RoutedRequest const& route);

private:
    using Clock = std::chrono::steady_clock;

    EmulatorConfig const& m_config;
    std::map<std::string, std::optional<Clock::time_point>> m_expiries; // nullopt: never
};

} // namespace tavix::emulator
