#include <tavix/net/http/ProxyChoice.h>

#include <boost/algorithm/string/predicate.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/beast/http/status.hpp>
#include <curl/curl.h>
#include <openssl/evp.h>

#include <cstdlib>
#include <initializer_list>
#include <memory>

namespace tavix::net::http {

using boost::system::error_code;
namespace ip = boost::asio::ip;

namespace {

class ProxyCategory : public boost::system::error_category {
public:
    char const* name() const noexcept override { return "tavix.proxy"; }
    std::string message(int value) const override
    {
        if (value == int(ProxyError::badAddress)) return "proxy address is not http://[user:password@]host[:port]";
        std::string text = "proxy refused the tunnel: " + std::to_string(value);
        auto const reason = boost::beast::http::obsolete_reason(boost::beast::http::int_to_status(unsigned(value)));
        if (reason != "<unknown-status>") text += " " + std::string(reason);
        return text;
    }
};

struct CurlUrlDeleter {
    void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};

std::string part(CURLU* handle, CURLUPart which, unsigned int flags = 0)
{
    char* raw = nullptr;
    if (curl_url_get(handle, which, &raw, flags) != CURLUE_OK) return {};
    std::string text = raw;
    curl_free(raw);
    return text;
}

std::string bracketed(std::string const& host) { return host.find(':') == std::string::npos ? host : "[" + host + "]"; }

// The first of the variables that is set, empty ones included: an empty https_proxy says
// "no proxy" and hides HTTPS_PROXY, as it does for libcurl.
char const* firstSet(std::initializer_list<char const*> names)
{
    for (char const* name : names) {
        if (char const* value = std::getenv(name)) return value;
    }
    return nullptr;
}

// `address` in the network `pattern` ("a.b.c.d", "a.b.c.d/n", likewise IPv6); no prefix, or
// /0, asks for the address itself.
bool inNetwork(ip::address const& address, std::string const& pattern)
{
    auto const slash = pattern.find('/');
    error_code ec;
    ip::address const network = ip::make_address(pattern.substr(0, slash), ec);
    if (ec || network.is_v4() != address.is_v4()) return false;
    unsigned const width = address.is_v4() ? 32 : 128;
    unsigned bits = width;
    if (slash != std::string::npos) {
        bits = unsigned(std::strtoul(pattern.c_str() + slash + 1, nullptr, 10));
        if (bits > width) return false;
        if (bits == 0) bits = width;
    }
    auto bytesOf = [](ip::address const& a) {
        if (a.is_v6()) {
            auto const b = a.to_v6().to_bytes();
            return std::string(b.begin(), b.end());
        }
        auto const b = a.to_v4().to_bytes();
        return std::string(b.begin(), b.end());
    };
    std::string const a = bytesOf(address), n = bytesOf(network);
    for (unsigned i = 0; i < bits; ++i) {
        unsigned const mask = 0x80u >> (i % 8);
        if ((a[i / 8] & mask) != (n[i / 8] & mask)) return false;
    }
    return true;
}

bool nameMatches(std::string name, std::string pattern)
{
    if (!name.empty() && name.back() == '.') name.pop_back();
    if (!pattern.empty() && pattern.back() == '.') pattern.pop_back();
    if (!pattern.empty() && pattern.front() == '.') pattern.erase(0, 1);
    if (pattern.empty() || pattern.size() > name.size()) return false;
    if (pattern.size() == name.size()) return boost::iequals(name, pattern);
    return name[name.size() - pattern.size() - 1] == '.' && boost::iends_with(name, pattern);
}

} // namespace

boost::system::error_category const& proxy_category()
{
    // Never destroyed: an error made while the process exits still has its category.
    static ProxyCategory const& category = *new ProxyCategory;
    return category;
}

error_code make_error_code(ProxyError e) { return {int(e), proxy_category()}; }

std::optional<Proxy> Proxy::parse(std::string const& text, error_code& ec)
{
    ec = make_error_code(ProxyError::badAddress);
    std::unique_ptr<CURLU, CurlUrlDeleter> handle(curl_url());
    std::string const full = text.find("://") == std::string::npos ? "http://" + text : text;
    if (!handle || curl_url_set(handle.get(), CURLUPART_URL, full.c_str(), 0) != CURLUE_OK) return std::nullopt;
    if (part(handle.get(), CURLUPART_SCHEME) != "http") return std::nullopt;

    Proxy proxy;
    proxy.host = part(handle.get(), CURLUPART_HOST);
    if (proxy.host.size() > 1 && proxy.host.front() == '[') proxy.host = proxy.host.substr(1, proxy.host.size() - 2);
    std::string const port = part(handle.get(), CURLUPART_PORT);
    if (!port.empty()) proxy.port = static_cast<unsigned short>(std::stoul(port));
    proxy.user = part(handle.get(), CURLUPART_USER, CURLU_URLDECODE);
    proxy.password = part(handle.get(), CURLUPART_PASSWORD, CURLU_URLDECODE);
    if (proxy.host.empty()) return std::nullopt;
    ec = {};
    return proxy;
}

std::string Proxy::address() const { return "http://" + bracketed(host) + ":" + std::to_string(port); }

std::string Proxy::authorization() const
{
    if (user.empty() && password.empty()) return {};
    std::string const plain = user + ":" + password;
    std::string encoded(4 * ((plain.size() + 2) / 3) + 1, '\0');
    int const length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data()),
                                       reinterpret_cast<unsigned char const*>(plain.data()), int(plain.size()));
    encoded.resize(std::size_t(length));
    return "Basic " + encoded;
}

std::string Proxy::route() const
{
    return "http://" + (user.empty() ? "" : user + "@") + bracketed(host) + ":" + std::to_string(port);
}

bool bypassesProxy(std::string const& host, std::string const& noProxy)
{
    if (noProxy == "*") return true;
    error_code notAnAddress;
    ip::address const address = ip::make_address(host, notAnAddress);
    std::size_t at = 0;
    while (at < noProxy.size()) {
        std::size_t const end = noProxy.find_first_of(", \t", at);
        std::string const pattern = noProxy.substr(at, end == std::string::npos ? end : end - at);
        if (!pattern.empty() && (notAnAddress ? nameMatches(host, pattern) : inNetwork(address, pattern))) return true;
        if (end == std::string::npos) break;
        at = end + 1;
    }
    return false;
}

std::optional<Proxy> chooseProxy(Url const& url, controller::Settings const& settings, error_code& ec)
{
    ec = {};
    std::string proxy, noProxy;
    if (settings.proxy || settings.noProxy) {
        proxy = settings.proxy.value_or("");
        noProxy = settings.noProxy.value_or("");
    } else {
        // Like libcurl, never HTTP_PROXY: a CGI program finds a request's "Proxy:" header there.
        char const* const fromEnv = url.scheme() == "https"
            ? firstSet({"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
            : firstSet({"http_proxy", "all_proxy", "ALL_PROXY"});
        char const* const except = firstSet({"no_proxy", "NO_PROXY"});
        proxy = fromEnv ? fromEnv : "";
        noProxy = except ? except : "";
    }
    if (proxy.empty() || bypassesProxy(url.host(), noProxy)) return std::nullopt;
    return Proxy::parse(proxy, ec);
}

} // namespace tavix::net::http
