// One HTTPS request through the library, as a device process makes it: the Locator asked for
// the Account service, with the CA bundle and client certificate of the controller settings.
//
//   one_request_library <host> <port> <token>
#include <bench/one_request/PeakMemory.h>
#include <restclient/locator/LocationClient.h>

#include <cstdlib>

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s <host> <port> <token>\n", argv[0]);
        return 2;
    }
    using namespace tavix::restclient;
    boost::asio::io_context io;
    unsigned status = 0;
    locator::LocationClient client(
        io,
        [&](locator::LocationResponse const& r, veltrun::TavixErrorResponse, unsigned s,
            boost::system::error_code const& ec) { status = !ec && !r.endpoint.endPointURL.value.empty() ? s : 0; },
        argv[1], static_cast<unsigned>(std::atoi(argv[2])), argv[3], true, "/locator/rest");
    if (!client.getLocation("ACCOUNT")) io.run();
    return tavix::bench::report(status);
}
