// Where a token comes from: the controller authenticates with an application key against the
// token endpoint of its settings (`auth_url`, OAuth 2.0 client credentials) and keeps the token in
// the process-wide token store, where the uploader, the renewer and your own requests find it.
// Usage: get_token [app-key]; the settings file is $TAVIX_CONTROLLER_CONFIG.
#include <tavix/controller/AuthenticationServiceClient.h>
#include <tavix/controller/OAuthHelper.h>

#include <ctime>
#include <iostream>
#include <string>

using tavix::controller::AuthenticationServiceClient;
using tavix::controller::OAuthHelper;

// The stored token of `appKey` while it is valid, else a new one (blocks for at most the HTTP
// client's time-outs). Empty, with `why` set, when authentication fails.
std::string bearerToken(std::string const& appKey, std::string& why)
{
    auto stored = OAuthHelper::Instance().GetAuthToken(appKey);
    if (!stored || std::time(nullptr) >= stored->GetIssued() + stored->GetDuration()) {
        std::string message;
        if (int const code = AuthenticationServiceClient::AuthenticateController(appKey, message)) {
            why = "authentication failed: " + std::to_string(code) + " " + message;
            return {};
        }
        stored = OAuthHelper::Instance().GetAuthToken(appKey);
    }
    if (!stored) why = "no token stored";
    return stored ? stored->GetToken() : std::string();
}

int main(int argc, char** argv)
{
    std::string const appKey = argc > 1 ? argv[1] : "example-app";
    std::string why;
    std::string const token = bearerToken(appKey, why);
    if (token.empty()) {
        std::cerr << why << "\n";
        return 1;
    }
    // The token is the device's credential: print what it is, never the token itself.
    auto const stored = OAuthHelper::Instance().GetAuthToken(appKey);
    std::cout << "token for '" << appKey << "': type " << stored->GetTokenType() << ", " << token.size()
              << " characters, valid for another " << stored->GetIssued() + stored->GetDuration() - std::time(nullptr)
              << " s\n";
    // The second call finds it in the store and sends nothing.
    return bearerToken(appKey, why) == token ? 0 : 1;
}
