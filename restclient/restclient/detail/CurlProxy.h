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

// Sets the proxy of `curl` for `url` explicitly, or "" to go direct, so that libcurl's own
// reading of the environment never decides. The proxy taken (nullopt: direct) is returned;
// `ec` is set when the settings cannot be read or the proxy is not a usable address. A URL that
// does not parse goes direct: libcurl reports it.
inline std::optional<net::http::Proxy> setCurlProxy(CURL* curl, std::string const& url, boost::system::error_code& ec)
{
    curl_easy_setopt(curl, CURLOPT_PROXY, "");
    controller::Settings const settings = controller::Settings::load(ec);
    if (ec) return std::nullopt;
    net::http::Url const parsed = net::http::Url::createUrl(url, ec);
    if (ec) return ec = {}, std::nullopt;
    std::optional<net::http::Proxy> proxy = net::http::chooseProxy(parsed, settings, ec);
    if (!proxy) return std::nullopt;
    curl_easy_setopt(curl, CURLOPT_PROXY, proxy->address().c_str());
    // The choice above has applied no_proxy already; libcurl's variables must not undo it.
    curl_easy_setopt(curl, CURLOPT_NOPROXY, "");
    if (!proxy->user.empty() || !proxy->password.empty()) {
        curl_easy_setopt(curl, CURLOPT_PROXYUSERNAME, proxy->user.c_str());
        curl_easy_setopt(curl, CURLOPT_PROXYPASSWORD, proxy->password.c_str());
    }
    return proxy;
}

} // namespace tavix::restclient::detail
