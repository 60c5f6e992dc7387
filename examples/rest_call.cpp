// A REST call with its errors handled: ask the Locator where a service is. The Locator's address
// comes from the controller settings, cut by split_URL into the host, port, TLS flag and path
// that every host-and-port client takes.
// Usage: rest_call [service] (default ACCOUNT); the settings file is $TAVIX_CONTROLLER_CONFIG.
#include <restclient/account/SplitUrl.h>
#include <restclient/locator/LocationClient.h>

#include <tavix/controller/AuthenticationServiceClient.h>
#include <tavix/controller/OAuthHelper.h>
#include <tavix/controller/Settings.h>

#include <exception>
#include <iostream>
#include <string>

using namespace tavix::restclient;

int main(int argc, char** argv)
{
    std::string const service = argc > 1 ? argv[1] : "ACCOUNT";
    boost::system::error_code ec;
    std::string detail;
    tavix::controller::Settings const settings = tavix::controller::Settings::load(ec, &detail);
    if (ec) return std::cerr << "settings: " << detail << ": " << ec.message() << "\n", 2;

    // Settings may name the Locator's SOAP face (".../locator/soap"); its REST face is ".../rest".
    std::string url = settings.locatorUrl;
    if (auto const soap = url.rfind("soap"); soap != std::string::npos) url.replace(soap, 4, "rest");
    // "https://host:8443/locator/rest" gives "host", 8443, true, "/locator/rest".
    std::string host, path, accountPart;
    unsigned int port = 0;
    bool tls = false;
    if (!account::split_URL(url, host, port, tls, path, accountPart)) {
        return std::cerr << "locator_url is not an absolute URL: '" << url << "'\n", 2;
    }

    std::string message;
    if (int const code = tavix::controller::AuthenticationServiceClient::AuthenticateController("example-app", message))
        return std::cerr << "authentication failed: " << code << " " << message << "\n", 1;
    std::string const token = tavix::controller::OAuthHelper::Instance().GetAuthToken("example-app")->GetToken();

    boost::asio::io_context io;
    int result = 1;
    // One client object, one request: keep it alive until its callback has run.
    locator::LocationClient locate(
        io,
        [&](locator::LocationResponse const& answer, veltrun::TavixErrorResponse const& error, unsigned int status,
            boost::system::error_code const& failure) {
            if (failure && status == 0) { // no answer: refused, dropped, time-out, TLS
                std::cerr << "no answer: " << failure.message() << "\n";
            } else if (failure) { // 200, but not the JSON expected
                std::cerr << "malformed answer: " << failure.message() << "\n";
            } else if (status != 200) { // the service's error document
                std::cerr << "status " << status << ", error " << error.code.value << "/" << error.subCode.value << ": "
                          << error.message.value << "\n";
            } else {
                std::cout << service << " is at " << answer.endpoint.endPointURL.value << "\n";
                result = 0;
            }
        },
        host, port, token, tls, path);
    // Only an address that does not parse is reported here; nothing was sent then.
    if (boost::system::error_code const refused = locate.getLocation(service))
        return std::cerr << "not sent: " << refused.message() << "\n", 1;
    try {
        io.run();                       // returns once the callback has run
    } catch (std::exception const& e) { // a JSON shape jsoncpp refuses to index: the server is not trusted
        return std::cerr << "malformed answer: " << e.what() << "\n", 1;
    }
    return result;
}
