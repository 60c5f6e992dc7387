/// @file
/// Which HTTP proxy, if any, carries a request: one choice shared by the REST transport and the
/// file transfer, so that both always take the same road. The controller settings decide when
/// they have a `proxy` or `no_proxy` line; otherwise the usual environment variables do, read as
/// libcurl reads them.
#pragma once

#include <tavix/Export.h>
#include <tavix/controller/Settings.h>
#include <tavix/net/http/Url.h>

#include <boost/system/error_code.hpp>

#include <optional>
#include <string>

namespace tavix::net::http {

/// Errors of the proxy leg (proxy_category(), named "tavix.proxy"). Any value other than
/// `badAddress` is the HTTP status with which the proxy refused to open a tunnel (407, 403,
/// 502 ...).
enum class ProxyError {
    badAddress = 1 ///< the proxy configured is not http://[user:password@]host[:port]
};
/// The category of the proxy leg's errors.
TAVIX_EXPORT boost::system::error_category const& proxy_category();
/// Lets a ProxyError compare with and convert to an error_code.
TAVIX_EXPORT boost::system::error_code make_error_code(ProxyError e);

/// @brief An HTTP proxy as configured: where it is and whom to tell it we are.
///
/// Holds the password in clear: log only `address()` or `route()`.
struct TAVIX_EXPORT Proxy {
    std::string host;           ///< IPv6 without brackets
    unsigned short port = 1080; ///< libcurl's default when the address names none
    std::string user;           ///< percent-decoded
    std::string password;       ///< percent-decoded

    /// "http://[user:password@]host[:port]", or "host[:port]" as the variables often say.
    /// nullopt with `ec` = ProxyError::badAddress for any other scheme, no host, or text that does
    /// not parse.
    static std::optional<Proxy> parse(std::string const& text, boost::system::error_code& ec);

    /// "http://host:port": credentials left out, so it can be logged.
    std::string address() const;
    /// The value of Proxy-Authorization ("Basic ..."), or empty without credentials.
    std::string authorization() const;
    /// Names the road to the origin for a connection key: connections are shared only by
    /// requests that take the same proxy as the same user (the password is left out).
    std::string route() const;
};

/// Whether `host` is reached directly under a no_proxy list: "*" alone for every host; else
/// names and domains ("example.com" and ".example.com" both match example.com and its
/// subdomains), and IP addresses with an optional CIDR prefix, separated by commas or blanks.
TAVIX_EXPORT bool bypassesProxy(std::string const& host, std::string const& noProxy);

/// The proxy for `url`, nullopt to go direct. From the settings when they name `proxy` or
/// `no_proxy` (no `proxy`, or an empty one: direct); otherwise from https_proxy or HTTPS_PROXY
/// (https), http_proxy (http; never in upper case), then all_proxy or ALL_PROXY, with no_proxy
/// or NO_PROXY. `ec` is set (ProxyError::badAddress) when the proxy to take is not a usable
/// address; the result is then nullopt.
TAVIX_EXPORT std::optional<Proxy> chooseProxy(Url const& url, controller::Settings const& settings,
                                              boost::system::error_code& ec);

} // namespace tavix::net::http

namespace boost::system {
/// Makes ProxyError an error code enum: it converts to boost::system::error_code.
template <>
struct is_error_code_enum<tavix::net::http::ProxyError> : std::true_type {};
} // namespace boost::system
