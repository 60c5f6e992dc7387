#include <restclient/account/SplitUrl.h>
#include <restclient/locator/LocationClient.h>

#include <iostream>

// Asks the Locator at the URL it is given for the Account service; any HTTP answer (a 401 for the
// token it does not have, too) shows the request went out and came back through the library.
int main(int argc, char** argv)
{
    using namespace tavix::restclient;
    std::string host, path, accountPart;
    unsigned int port = 0;
    bool tls = false;
    if (argc < 2 || !account::split_URL(argv[1], host, port, tls, path, accountPart)) return 2;
    boost::asio::io_context io;
    unsigned int answered = 0;
    locator::LocationClient client(
        io, [&](locator::LocationResponse const&, auto, unsigned int status, auto const&) { answered = status; }, host,
        port, "no-token", tls, path);
    if (client.getLocation("ACCOUNT")) return 1;
    io.run_for(std::chrono::seconds(30));
    if (answered == 0) return std::cerr << "no answer\n", 1;
    std::cout << "rest-only ok: HTTP " << answered << "\n";
}
