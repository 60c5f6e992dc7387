// The controller's provisioning settings: a file of `key = value` lines named by the
// environment variable TAVIX_CONTROLLER_CONFIG (default /etc/tavix/controller.conf).
// A re-provisioned device needs no restart: each use looks at the file's status and parses it
// again when it changed.
#pragma once

#include <platform/Export.h>

#include <boost/system/error_code.hpp>

#include <optional>
#include <string>

namespace tavix::controller {

// Errors of `Settings::load`. A missing file is not one: it means nothing is configured. Any
// other reason the file cannot be read (a directory, no permission, a read error) is
// `unreadable`.
enum class SettingsError { unreadable = 1, malformedLine, unknownKey, badValue };
TAVIX_EXPORT boost::system::error_category const& settings_category();
TAVIX_EXPORT boost::system::error_code make_error_code(SettingsError e);

struct TAVIX_EXPORT Settings {
    std::string locatorUrl;      // locator_url
    std::string authUrl;         // auth_url: token endpoint
    std::string clientCertFile;  // client_cert_file: PEM with certificate and key
    std::string caFile;          // ca_file: CA bundle for HTTPS REST peers
    bool disableTls = false;     // disable_tls
    std::string commonName;      // common_name
    bool connectionReuse = true; // connection_reuse: keep HTTP connections alive between requests
    // The HTTP proxy of REST and transfer: with either line present the settings decide alone
    // and the environment's proxy variables are ignored (see net::http::chooseProxy).
    std::optional<std::string> proxy;    // proxy: http://[user:password@]host[:port]; empty: direct
    std::optional<std::string> noProxy;  // no_proxy: hosts, .domains and addresses reached directly

    static std::string path();
    // Reads `path()`, or gives the last result while the file's status (modification time,
    // size, identity) is unchanged. On error `ec` is set, `detail` (when given) says where and why (the path
    // and the system's reason, or the path and line), and the settings returned are empty.
    static Settings load(boost::system::error_code& ec, std::string* detail = nullptr);
    static Settings parse(std::string const& text, boost::system::error_code& ec,
                          std::string* detail = nullptr);
};

} // namespace tavix::controller

namespace boost::system {
template <>
struct is_error_code_enum<tavix::controller::SettingsError> : std::true_type {};
} // namespace boost::system
