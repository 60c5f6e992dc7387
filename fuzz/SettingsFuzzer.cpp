// The controller settings parser on any file content: no crash, nothing half-read on an error,
// and what it read, written back as "key = value" lines, reads the same again.
#include <fuzz/FuzzSupport.h>

#include <tavix/controller/Settings.h>

using tavix::controller::Settings;

namespace {

bool same(Settings const& a, Settings const& b)
{
    return a.locatorUrl == b.locatorUrl && a.authUrl == b.authUrl && a.clientCertFile == b.clientCertFile
        && a.caFile == b.caFile && a.disableTls == b.disableTls && a.commonName == b.commonName;
}

std::string written(Settings const& s)
{
    return "locator_url = " + s.locatorUrl + "\nauth_url = " + s.authUrl + "\nclient_cert_file = " + s.clientCertFile
        + "\nca_file = " + s.caFile + "\ndisable_tls = " + (s.disableTls ? "true" : "false")
        + "\ncommon_name = " + s.commonName + "\n";
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    boost::system::error_code ec;
    std::string detail;
    Settings const settings = Settings::parse(tavix::fuzz::text(data, size), ec, &detail);
    if (ec) {
        FUZZ_CHECK(same(settings, Settings{}) && !detail.empty());
        return 0;
    }
    Settings const again = Settings::parse(written(settings), ec);
    FUZZ_CHECK(!ec && same(again, settings));
    return 0;
}
