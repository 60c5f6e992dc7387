// libcurl transfers take the proxy the REST transport would take for the same URL
// (internal; included by the .cpp files that run libcurl).
#pragma once

#include <tavix/controller/Settings.h>
#include <tavix/net/http/ProxyChoice.h>

#include <boost/system/error_code.hpp>

#include <curl/curl.h>

#include <optional>
#include <string>

namespace tavix::restclient::detail {

// The proxy the REST transport would take for `url` (nullopt: direct); `ec` is set when the
// settings cannot be read or the proxy is not a usable address. A URL that does not parse goes
// direct: libcurl reports it.
inline std::optional<net::http::Proxy> curlProxyFor(std::string const& url, boost::system::error_code& ec)
{
    controller::Settings const settings = controller::Settings::load(ec);
    if (ec) return std::nullopt;
    net::http::Url const parsed = net::http::Url::createUrl(url, ec);
    if (ec) return ec = {}, std::nullopt;
    return net::http::chooseProxy(parsed, settings, ec);
}

// Sets the proxy of `curl` explicitly, or "" to go direct, so that libcurl's own reading of the
// environment never decides.
inline void setCurlProxy(CURL* curl, std::optional<net::http::Proxy> const& proxy)
{
    curl_easy_setopt(curl, CURLOPT_PROXY, proxy ? proxy->address().c_str() : "");
    if (!proxy) return;
    // The choice has applied no_proxy already; libcurl's variables must not undo it.
    curl_easy_setopt(curl, CURLOPT_NOPROXY, "");
    if (!proxy->user.empty() || !proxy->password.empty()) {
        curl_easy_setopt(curl, CURLOPT_PROXYUSERNAME, proxy->user.c_str());
        curl_easy_setopt(curl, CURLOPT_PROXYPASSWORD, proxy->password.c_str());
    }
}

} // namespace tavix::restclient::detail
