// Pieces shared by the uploader's steps and the tool (internal).
#pragma once

#include <restclient/account/SplitUrl.h>

#include <tavix/controller/Settings.h>
#include <tavix/net/http/TlsFiles.h>

#include <boost/system/error_code.hpp>

#include <string>

namespace tavix::restclient::detail {

// A service URL cut into what the host-and-port clients are built from.
struct ServiceAddress {
    std::string host;
    unsigned int port = 0;
    bool tls = false;
    std::string path;
    std::string accountPart;

    // False when the URL does not split, or has no host or port.
    bool parse(std::string const& url)
    {
        return account::split_URL(url, host, port, tls, path, accountPart) && !host.empty() && port != 0;
    }
};

// The Locator's REST URL from the configured one, which names its SOAP face: the last "soap"
// read as "rest" (a URL without one is taken as it is).
inline std::string restLocatorUrl(std::string url)
{
    std::string::size_type const soap = url.rfind("soap");
    if (soap != std::string::npos) url.replace(soap, 4, "rest");
    return url;
}

// "Error code: ... Details: ..." of a failed request, for the uploader's error lines.
template <typename ErrorDocument>
std::string describeFailure(boost::system::error_code const& ec, ErrorDocument const& error)
{
    // A CA bundle or client certificate that cannot be read: which one.
    std::string which;
    if (ec) {
        auto const settings = controller::Settings::current();
        if (net::http::checkTlsFiles(settings.caFile, settings.clientCertFile, &which) == ec)
            which = " (" + which + ")";
        else which.clear();
    }
    return "Error code: " + std::to_string(ec.value()) + " Error message: " + ec.message() + which
        + " Response code: " + std::to_string(error.code.value) + " Sub-code: " + std::to_string(error.subCode.value)
        + " Message: " + error.message.value + " Details: " + error.details.value;
}

inline constexpr unsigned int kUnauthorized = 401;

} // namespace tavix::restclient::detail
