// A blocking call on a worker thread: the thread builds its clients on an io_context of its own
// and waits for each answer with AsyncOperation, as the library's uploader does. Here: the
// Locator gives the Account service, the current account gives the Storage service's URL.
// Usage: blocking_call; the settings file is $TAVIX_CONTROLLER_CONFIG.
#include <restclient/AsyncOperation.h>
#include <restclient/account/AccountClient.h>
#include <restclient/account/SplitUrl.h>
#include <restclient/locator/LocationClient.h>

#include <tavix/controller/AuthenticationServiceClient.h>
#include <tavix/controller/LocatorServiceClient.h>
#include <tavix/controller/OAuthHelper.h>

#include <exception>
#include <iostream>
#include <string>
#include <thread>

using namespace tavix::restclient;

struct Address {
    std::string host, path, accountPart;
    unsigned int port = 0;
    bool tls = false;
    bool parse(std::string const& url) { return account::split_URL(url, host, port, tls, path, accountPart); }
};

// Runs on the worker thread; returns the Storage service's URL, or empty with `why` set.
std::string findStorage(std::string const& token, std::string& why)
{
    boost::asio::io_context io;
    AsyncOperation operation;
    Address locator, account;
    std::string locatorUrl = tavix::controller::LocatorServiceClient::LocatorServiceUrl();
    if (auto const soap = locatorUrl.rfind("soap"); soap != std::string::npos) locatorUrl.replace(soap, 4, "rest");
    if (!locator.parse(locatorUrl)) return why = "locator_url '" + locatorUrl + "' does not parse", "";

    std::string accountUrl;
    locator::LocationClient locate(
        io,
        [&](locator::LocationResponse const& r, veltrun::TavixErrorResponse const& e, unsigned int status,
            boost::system::error_code const& ec) {
            accountUrl = r.endpoint.endPointURL.value + "/v1/rest";
            why = "Locator: status " + std::to_string(status) + " " + ec.message() + " " + e.message.value;
            operation.Done(!ec && status == 200 ? AsyncOperation::Success : AsyncOperation::Failed);
        },
        locator.host, locator.port, token, locator.tls, locator.path);
    operation.Start();
    // WaitUntilDone(io) runs io on this thread until Done; the HTTP time-outs bound the wait.
    if (locate.getLocation("ACCOUNT") || operation.WaitUntilDone(io) != AsyncOperation::Success) return "";
    if (!account.parse(accountUrl)) return why = "Account URL '" + accountUrl + "' does not parse", "";

    std::string storageUrl;
    account::AccountClient current(
        io,
        [&](account::AccountResponse const& r, veltrun::TavixErrorResponse const& e, unsigned int status,
            boost::system::error_code const& ec) {
            storageUrl = r.storageURL;
            why = "Account: status " + std::to_string(status) + " " + ec.message() + " " + e.message.value;
            operation.Done(!ec && status == 200 ? AsyncOperation::Success : AsyncOperation::Failed);
        },
        account.host, account.port, token, account.tls, account.path);
    operation.Start();
    if (current.getCurrent() || operation.WaitUntilDone(io) != AsyncOperation::Success) return "";
    return storageUrl;
}

int main()
{
    std::string message;
    if (int const code = tavix::controller::AuthenticationServiceClient::AuthenticateController("example-app", message))
        return std::cerr << "authentication failed: " << code << " " << message << "\n", 1;
    std::string const token = tavix::controller::OAuthHelper::Instance().GetAuthToken("example-app")->GetToken();

    std::string storageUrl, why;
    std::thread worker([&] {
        try { // no exception may leave a thread: a malformed answer throws from the io_context
            storageUrl = findStorage(token, why);
        } catch (std::exception const& e) {
            why = std::string("malformed answer: ") + e.what();
        }
    });
    worker.join();
    if (storageUrl.empty()) return std::cerr << why << "\n", 1;
    std::cout << "Storage service at " << storageUrl << "\n";
    return 0;
}
