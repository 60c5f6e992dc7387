/// @file
/// The controller's provisioning settings: a file of `key = value` lines named by the
/// environment variable TAVIX_CONTROLLER_CONFIG (default /etc/tavix/controller.conf), with the
/// values a program sets in-process laid over it.
/// A re-provisioned device needs no restart: the file's status is looked at again at most once a
/// second (never once per request) and the file parsed again when it changed.
#pragma once

#include <tavix/Export.h>

#include <boost/system/error_code.hpp>

#include <cstdint>
#include <optional>
#include <string>

namespace tavix::controller {

/// Errors of `Settings::load` (settings_category()). A missing file is not one: it means nothing
/// is configured. Any other reason the file cannot be read (a directory, no permission, a read
/// error) is `unreadable`.
enum class SettingsError {
    unreadable = 1, ///< the file exists but cannot be read
    malformedLine,  ///< a line that is neither `key = value`, a comment nor blank
    unknownKey,     ///< a key this library does not know
    badValue        ///< a value out of the key's form or range
};
/// The category of SettingsError, named "tavix.settings".
TAVIX_EXPORT boost::system::error_category const& settings_category();
/// Lets a SettingsError compare with and convert to an error_code.
TAVIX_EXPORT boost::system::error_code make_error_code(SettingsError e);

/// @brief The controller settings as one value, and the process-wide source they are read from.
///
/// Every REST request (CA bundle, client certificate, proxy, connection reuse), every token request
/// (`auth_url`) and every upload (Locator URL, transfer) reads them afresh; the file's keys are in
/// the README. The static members are safe from any thread.
struct TAVIX_EXPORT Settings {
    std::string locatorUrl;      ///< `locator_url`
    std::string authUrl;         ///< `auth_url`: token endpoint
    std::string clientCertFile;  ///< `client_cert_file`: PEM with certificate and key
    std::string caFile;          ///< `ca_file`: CA bundle for HTTPS REST peers (empty: the system's)
    bool disableTls = false;     ///< `disable_tls`
    std::string commonName;      ///< `common_name`
    bool connectionReuse = true; ///< `connection_reuse`: keep HTTP connections alive between requests
    /// @name Proxy
    /// The HTTP proxy of REST and transfer: with either line present the settings decide alone
    /// and the environment's proxy variables are ignored (see net::http::chooseProxy).
    /// @{
    std::optional<std::string> proxy;   ///< `proxy`: http://[user:password@]host[:port]; empty: direct
    std::optional<std::string> noProxy; ///< `no_proxy`: hosts, .domains and addresses reached directly
    /// @}
    /// @name Upload queue
    /// The upload queue's defaults; a size takes a K, M or G suffix (powers of 1024). Unset: the
    /// UploadQueueOptions default.
    /// @{
    std::string queueSpool;                         ///< `queue_spool`: the spool directory
    std::optional<std::uint64_t> queueConcurrency;  ///< `queue_concurrency`: uploads at a time, 1..64
    std::optional<std::uint64_t> queueRate;         ///< `queue_rate`: bytes per second, 0 none
    std::optional<std::uint64_t> queueQuotaBytes;   ///< `queue_quota_bytes`: 0 none
    std::optional<std::uint64_t> queueQuotaEntries; ///< `queue_quota_entries`: 0 none
    std::optional<std::uint64_t> queueBackoffBase;  ///< `queue_backoff_base`: seconds
    std::optional<std::uint64_t> queueBackoffCap;   ///< `queue_backoff_cap`: seconds
    std::optional<std::uint64_t> queueRetention;    ///< `queue_retention`: seconds, 0 forever
    std::optional<bool> queueDropOldest;            ///< `queue_when_full`: refuse | drop_oldest
    /// @}

    /// The file: the one `useFile` named, else TAVIX_CONTROLLER_CONFIG's, else the default.
    static std::string path();
    /// Reads `path()`, or takes the last result while the file's status (modification time,
    /// size, identity, looked at no more than once a second) is unchanged, then lays the
    /// in-process values over it. On error `ec` is set (SettingsError), `detail` (when given) says
    /// where and why (the path and the system's reason, or the path and line), and the settings
    /// returned are empty. A missing file is no error: the defaults, with the in-process values.
    static Settings load(boost::system::error_code& ec, std::string* detail = nullptr);
    /// `load` for callers that treat unreadable settings as nothing set.
    static Settings current();
    /// Parses `text` as the file's content, without the in-process values; errors as `load`
    /// (`detail` names the line).
    static Settings parse(std::string const& text, boost::system::error_code& ec, std::string* detail = nullptr);

    /// @name In-process values
    /// The in-process source, for programs and tests that set values without writing a file.
    /// `set` takes a key and value as the file would (a second `set` of a key replaces the
    /// first) and holds it over the file's value until `clearSet`; a bad key or value is refused
    /// with `unknownKey` or `badValue` and changes nothing. `useFile` names the file for this
    /// process (empty: back to the environment). All three are safe from any thread.
    /// @{

    /// Holds `value` for `key` over the file's; `unknownKey` or `badValue` when refused.
    static boost::system::error_code set(std::string const& key, std::string const& value);
    /// Drops every value `set` holds.
    static void clearSet();
    /// Names the file for this process; empty: back to TAVIX_CONTROLLER_CONFIG or the default.
    static void useFile(std::string const& file);
    /// @}

    /// For a program that has just rewritten the settings, the CA bundle or the client
    /// certificate: their next use reads them again at once rather than within a second.
    static void reload();
};

} // namespace tavix::controller

namespace boost::system {
/// Makes SettingsError an error code enum: it converts to boost::system::error_code.
template <>
struct is_error_code_enum<tavix::controller::SettingsError> : std::true_type {};
} // namespace boost::system
