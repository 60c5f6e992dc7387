// Request set-up shared by the service clients (internal; only their .cpp files include it).
#pragma once

#include <tavix/net/http/HttpMessage.h>

#include <boost/system/error_code.hpp>

#include <fmt/format.h>

#include <string>
#include <string_view>
#include <type_traits>

namespace tavix::restclient::detail {

// "http[s]://host:port/" + path + suffix. The path goes in as it stands: one that begins with
// "/" gives a doubled slash, which the services receive as it is.
inline std::string serviceUrl(bool tls, std::string const& host, unsigned int port, std::string const& path,
                              std::string_view suffix = {})
{
    return fmt::format("{}://{}:{}/{}{}", tls ? "https" : "http", host, port, path, suffix);
}

// Readies `engine` for a JSON exchange with `text`: the parsed URL, then the Authorization header
// (`authorization` is its value, or a function of the parsed URL that gives it; "" sends none),
// then `userAgent` when given, then Accept and Content-Type "application/json". The order is the
// order of the header lines on the wire. A text that does not parse is returned, and the request
// is left as it was.
template <typename Engine, typename Authorization>
boost::system::error_code prepareJsonRequest(Engine& engine, std::string const& text, Authorization&& authorization,
                                             std::string const& userAgent = {})
{
    boost::system::error_code ec;
    net::http::Url const url = net::http::Url::createUrl(text, ec);
    if (ec) return ec;
    net::http::HttpRequest& request = engine.request();
    request.url(url);
    std::string value;
    if constexpr (std::is_invocable_v<Authorization, net::http::Url const&>) {
        value = authorization(url);
    } else {
        value = authorization;
    }
    if (!value.empty()) engine.authorization(value);
    if (!userAgent.empty()) request.setField("User-Agent", userAgent);
    request.accept("application/json");
    request.contentType("application/json");
    return ec;
}

} // namespace tavix::restclient::detail
