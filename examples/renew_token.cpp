// Token renewal in the background: an AuthRenew object watches an application key for its
// lifetime. The renewer's thread wakes every 10 seconds and authenticates when the key has no
// token or its token expired more than 59 seconds ago; the token store then holds the new one
// for every user of the key (the uploader among them).
// Usage: renew_token [app-key]; the settings file is $TAVIX_CONTROLLER_CONFIG.
#include <restclient/authentication/AuthRenew.h>

#include <tavix/controller/OAuthHelper.h>

#include <chrono>
#include <ctime>
#include <iostream>
#include <string>
#include <thread>

int main(int argc, char** argv)
{
    std::string const appKey = argc > 1 ? argv[1] : "example-renewed-app";
    auto& store = tavix::controller::OAuthHelper::Instance();
    tavix::restclient::authentication::AuthRenew renewer(appKey); // watched while it lives
    std::cout << "watching '" << appKey << "' (" << tavix::restclient::authentication::AuthRenew::WatchCount(appKey)
              << " watcher)\n";

    // Its first pass comes within 10 seconds; a program does not wait for it like this, it just
    // takes the stored token when it needs one.
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    tavix::controller::AuthTokenPtr token;
    while (!(token = store.GetAuthToken(appKey)) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
    if (!token) return std::cerr << "no token within 30 s: see the renewer's log lines\n", 1;

    std::time_t const expires = token->GetIssued() + token->GetDuration();
    std::cout << "the renewer stored a token; it expires in " << expires - std::time(nullptr)
              << " s and is renewed once it has been expired for 59 s\n";
    // The handle stays valid: a renewal overwrites the record in place, so token->GetToken()
    // always gives the current token.
    return 0;
}
