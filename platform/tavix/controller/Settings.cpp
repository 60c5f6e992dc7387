#include <tavix/controller/Settings.h>

#include <tavix/detail/FileIdentity.h>
#include <tavix/net/http/ProxyChoice.h>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/trim.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <mutex>
#include <sstream>
#include <tuple>
#include <utility>
#include <vector>

namespace tavix::controller {

namespace {

class SettingsCategory : public boost::system::error_category {
public:
    char const* name() const noexcept override { return "tavix.settings"; }
    std::string message(int value) const override
    {
        switch (static_cast<SettingsError>(value)) {
        case SettingsError::unreadable: return "controller settings file cannot be read";
        case SettingsError::malformedLine: return "controller settings line is not 'key = value'";
        case SettingsError::unknownKey: return "unknown controller setting";
        case SettingsError::badValue: return "bad controller setting value";
        }
        return "controller settings error";
    }
};

bool parseBool(std::string text, bool& out)
{
    boost::algorithm::to_lower(text);
    if (text == "true" || text == "yes" || text == "1") return out = true, true;
    if (text == "false" || text == "no" || text == "0") return out = false, true;
    return false;
}

// The whole of `file` into `text`; 0, or the errno of what kept it from being read (a
// directory, say, opens and then fails to read with EISDIR).
int readWhole(std::string const& file, std::string& text)
{
    // Non-blocking, so that a FIFO without a writer cannot hang the caller.
    int const fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return errno;
    int error = 0;
    char buffer[4096];
    for (;;) {
        ssize_t const n = ::read(fd, buffer, sizeof buffer);
        if (n > 0) text.append(buffer, static_cast<std::size_t>(n));
        else if (n == 0) break;
        else if (errno != EINTR) {
            error = errno;
            break;
        }
    }
    ::close(fd);
    return error;
}

struct LoadResult {
    Settings settings;
    boost::system::error_code ec;
    std::string detail;
};

LoadResult loadFile(std::string const& file)
{
    LoadResult result;
    std::string text;
    int const error = readWhole(file, text);
    if (error == ENOENT) return result;
    if (error) {
        result.ec = SettingsError::unreadable;
        result.detail = file + ": " + boost::system::error_code(error, boost::system::system_category()).message();
        return result;
    }
    result.settings = Settings::parse(text, result.ec, &result.detail);
    if (result.ec) result.detail = file + ":" + result.detail;
    return result;
}

// A count or size: digits, then K, M or G for powers of 1024.
bool parseSize(std::string const& text, std::uint64_t& out)
{
    std::size_t digits = 0;
    while (digits < text.size() && std::isdigit(static_cast<unsigned char>(text[digits]))) ++digits;
    if (digits == 0 || digits > 15 || text.size() - digits > 1) return false;
    out = std::stoull(text.substr(0, digits));
    if (digits == text.size()) return true;
    std::string const units = "KMG";
    auto const unit = units.find(static_cast<char>(std::toupper(static_cast<unsigned char>(text.back()))));
    if (unit == std::string::npos) return false;
    out <<= 10 * (unit + 1);
    return true;
}

// One `key = value` onto `s`; on error `ec` is set and `why` says what is wrong.
bool apply(Settings& s, std::string const& key, std::string const& value, boost::system::error_code& ec,
           std::string& why)
{
    std::map<std::string, std::string*> const strings = {
        {"locator_url", &s.locatorUrl}, {"auth_url", &s.authUrl},       {"client_cert_file", &s.clientCertFile},
        {"ca_file", &s.caFile},         {"common_name", &s.commonName},
    };
    std::map<std::string, bool*> const flags = {{"disable_tls", &s.disableTls},
                                                {"connection_reuse", &s.connectionReuse}};
    auto fail = [&](SettingsError e, std::string text) {
        ec = e;
        why = std::move(text);
        return false;
    };

    if (auto const flag = flags.find(key); flag != flags.end()) {
        if (!parseBool(value, *flag->second)) {
            return fail(SettingsError::badValue, key + " must be true or false, not '" + value + "'");
        }
        return true;
    }
    if (key == "proxy") {
        boost::system::error_code bad;
        // The value is not repeated: it may hold a password.
        if (!value.empty() && !net::http::Proxy::parse(value, bad)) {
            return fail(SettingsError::badValue, "proxy must be http://[user:password@]host[:port]");
        }
        s.proxy = value;
        return true;
    }
    std::map<std::string, std::optional<std::uint64_t>*> const sizes = {
        {"queue_concurrency", &s.queueConcurrency},  {"queue_rate", &s.queueRate},
        {"queue_quota_bytes", &s.queueQuotaBytes},   {"queue_quota_entries", &s.queueQuotaEntries},
        {"queue_backoff_base", &s.queueBackoffBase}, {"queue_backoff_cap", &s.queueBackoffCap},
        {"queue_retention", &s.queueRetention},
    };
    if (auto const size = sizes.find(key); size != sizes.end()) {
        std::uint64_t number = 0;
        if (!parseSize(value, number)) {
            return fail(SettingsError::badValue, key + " must be a number (K, M or G may follow), not '" + value + "'");
        }
        if (key == "queue_concurrency" && (number < 1 || number > 64)) {
            return fail(SettingsError::badValue, "queue_concurrency must be from 1 to 64, not '" + value + "'");
        }
        *size->second = number;
        return true;
    }
    if (key == "queue_when_full") {
        if (value != "refuse" && value != "drop_oldest") {
            return fail(SettingsError::badValue, "queue_when_full must be refuse or drop_oldest, not '" + value + "'");
        }
        s.queueDropOldest = value == "drop_oldest";
        return true;
    }
    if (key == "queue_spool") {
        s.queueSpool = value;
        return true;
    }
    if (key == "no_proxy") {
        s.noProxy = value;
        return true;
    }
    auto const field = strings.find(key);
    if (field == strings.end()) return fail(SettingsError::unknownKey, "unknown key '" + key + "'");
    *field->second = value;
    return true;
}

// Never destroyed: a worker may still read the settings while the process exits.
struct State {
    std::mutex mutex;
    std::string file; // useFile's; empty: the environment's
    std::vector<std::pair<std::string, std::string>> set;
    std::string checkedPath; // the file last looked at, and what it was then
    detail::FileIdentity identity;
    detail::RecheckTimer recheck;
    LoadResult result;
    Settings merged; // the file's with `set` laid over it: what `load` hands out
};

void merge(State& s)
{
    s.merged = s.result.settings;
    boost::system::error_code ignored;
    std::string why;
    for (auto const& [key, value] : s.set) apply(s.merged, key, value, ignored, why); // checked by `set`
}

State& state()
{
    static State& instance = *new State;
    return instance;
}

std::string pathOf(State const& state)
{
    if (!state.file.empty()) return state.file;
    char const* fromEnv = std::getenv("TAVIX_CONTROLLER_CONFIG");
    return fromEnv && *fromEnv ? fromEnv : "/etc/tavix/controller.conf";
}

} // namespace

boost::system::error_category const& settings_category()
{
    // Never destroyed: an error made while the process exits still has its category.
    static SettingsCategory const& category = *new SettingsCategory;
    return category;
}

boost::system::error_code make_error_code(SettingsError e) { return {static_cast<int>(e), settings_category()}; }

std::string Settings::path()
{
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return pathOf(s);
}

Settings Settings::load(boost::system::error_code& ec, std::string* detail)
{
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    std::string const path = pathOf(s);
    // A file named anew is read at once; the same file is looked at again at most once a second.
    if (path != s.checkedPath) s.recheck.reset();
    if (s.recheck.due(detail::RecheckTimer::Clock::now())) {
        s.checkedPath = path;
        detail::FileIdentity const identity = detail::FileIdentity::of(path);
        // Anything but a regular file is read (and refused) each time it is looked at.
        if (!identity.regular || identity != s.identity) {
            s.result = loadFile(path);
            s.identity = identity.regular ? identity : detail::FileIdentity{};
            merge(s);
        }
    }
    ec = s.result.ec;
    if (ec) {
        if (detail) *detail = s.result.detail;
        return {};
    }
    return s.merged;
}

Settings Settings::current()
{
    boost::system::error_code unreadable;
    return load(unreadable);
}

Settings Settings::parse(std::string const& text, boost::system::error_code& ec, std::string* detail)
{
    Settings s;
    ec = {};
    std::istringstream lines(text);
    std::string line;
    std::string why;
    for (int lineNo = 1; std::getline(lines, line); ++lineNo) {
        boost::algorithm::trim(line);
        if (line.empty() || line.front() == '#') continue;
        auto const eq = line.find('=');
        if (eq == std::string::npos) {
            ec = SettingsError::malformedLine;
            why = "expected 'key = value'";
        } else {
            apply(s, boost::algorithm::trim_copy(line.substr(0, eq)), boost::algorithm::trim_copy(line.substr(eq + 1)),
                  ec, why);
        }
        if (ec) {
            if (detail) *detail = std::to_string(lineNo) + ": " + why;
            return {};
        }
    }
    ec = {};
    return s;
}

boost::system::error_code Settings::set(std::string const& key, std::string const& value)
{
    Settings scratch;
    boost::system::error_code ec;
    std::string why;
    if (!apply(scratch, key, value, ec, why)) return ec;
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto const same = std::find_if(s.set.begin(), s.set.end(), [&](auto const& entry) { return entry.first == key; });
    if (same != s.set.end()) same->second = value;
    else s.set.emplace_back(key, value);
    merge(s);
    return {};
}

void Settings::clearSet()
{
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.set.clear();
    merge(s);
}

void Settings::useFile(std::string const& file)
{
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.file = file;
    s.recheck.reset();
}

void Settings::reload() { ++detail::forcedRechecks; }

} // namespace tavix::controller
