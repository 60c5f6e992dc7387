// The controller's provisioning settings: a file of `key = value` lines named by the
// environment variable TAVIX_CONTROLLER_CONFIG (default /etc/tavix/controller.conf), with the
// values a program sets in-process laid over it.
// A re-provisioned device needs no restart: the file's status is looked at again at most once a
// second (never once per request) and the file parsed again when it changed.
#pragma once

#include <tavix/Export.h>

#include <boost/system/error_code.hpp>

#include <cstdint>
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
    std::optional<std::string> proxy;   // proxy: http://[user:password@]host[:port]; empty: direct
    std::optional<std::string> noProxy; // no_proxy: hosts, .domains and addresses reached directly
    // The upload queue's defaults; a size takes a K, M or G suffix (powers of 1024).
    std::string queueSpool;                         // queue_spool: the spool directory
    std::optional<std::uint64_t> queueConcurrency;  // queue_concurrency: uploads at a time, 1..64
    std::optional<std::uint64_t> queueRate;         // queue_rate: bytes per second, 0 none
    std::optional<std::uint64_t> queueQuotaBytes;   // queue_quota_bytes: 0 none
    std::optional<std::uint64_t> queueQuotaEntries; // queue_quota_entries: 0 none
    std::optional<std::uint64_t> queueBackoffBase;  // queue_backoff_base: seconds
    std::optional<std::uint64_t> queueBackoffCap;   // queue_backoff_cap: seconds
    std::optional<std::uint64_t> queueRetention;    // queue_retention: seconds, 0 forever
    std::optional<bool> queueDropOldest;            // queue_when_full: refuse | drop_oldest

    // The file: the one `useFile` named, else TAVIX_CONTROLLER_CONFIG's, else the default.
    static std::string path();
    // Reads `path()`, or takes the last result while the file's status (modification time,
    // size, identity, looked at no more than once a second) is unchanged, then lays the in-process values over it. On
    // error `ec` is set, `detail` (when given) says where and why (the path and the system's reason, or the path and
    // line), and the settings returned are empty.
    static Settings load(boost::system::error_code& ec, std::string* detail = nullptr);
    // `load` for callers that treat unreadable settings as nothing set.
    static Settings current();
    static Settings parse(std::string const& text, boost::system::error_code& ec, std::string* detail = nullptr);

    // The in-process source, for programs and tests that set values without writing a file.
    // `set` takes a key and value as the file would (a second `set` of a key replaces the
    // first) and holds it over the file's value until `clearSet`; a bad key or value is refused
    // with `unknownKey` or `badValue` and changes nothing. `useFile` names the file for this
    // process (empty: back to the environment). All three are safe from any thread.
    static boost::system::error_code set(std::string const& key, std::string const& value);
    static void clearSet();
    static void useFile(std::string const& file);
    // For a program that has just rewritten the settings, the CA bundle or the client
    // certificate: the next use reads them again at once rather than within a second.
    static void reload();
};

} // namespace tavix::controller

namespace boost::system {
template <>
struct is_error_code_enum<tavix::controller::SettingsError> : std::true_type {};
} // namespace boost::system
