// Url::createUrl on any text: no crash, an error exactly when the URL is not valid, and the text
// of a valid URL parses again to the same parts (requests are sent by re-reading it).
#include <fuzz/FuzzSupport.h>

#include <tavix/net/http/Url.h>

using tavix::net::http::Url;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    boost::system::error_code ec;
    Url const url = Url::createUrl(tavix::fuzz::text(data, size), ec);
    FUZZ_CHECK(url.isValid() == !ec);
    if (!url.isValid()) return 0;

    Url const again = Url::createUrl(url.toString(), ec);
    FUZZ_CHECK(again.isValid() && !ec);
    FUZZ_CHECK(again.scheme() == url.scheme() && again.host() == url.host() && again.port() == url.port()
               && again.target() == url.target());
    return 0;
}
