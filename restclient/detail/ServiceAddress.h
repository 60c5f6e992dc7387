// Pieces shared by the uploader's steps (internal).
#pragma once

#include <restclient/account/SplitUrl.h>

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

// "Error code: ... Details: ..." of a failed request, for the uploader's error lines.
template <typename ErrorDocument>
std::string describeFailure(boost::system::error_code const& ec, ErrorDocument const& error)
{
    return "Error code: " + std::to_string(ec.value()) + " Error message: " + ec.message()
        + " Response code: " + std::to_string(error.code.value) + " Sub-code: " + std::to_string(error.subCode.value)
        + " Message: " + error.message.value + " Details: " + error.details.value;
}

inline constexpr unsigned int kUnauthorized = 401;

} // namespace tavix::restclient::detail
