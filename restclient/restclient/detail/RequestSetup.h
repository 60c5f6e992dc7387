// Request set-up shared by the service clients (internal; only their .cpp files include it).
#pragma once

#include <tavix/net/http/HttpMessage.h>

#include <boost/system/error_code.hpp>

#include <fmt/format.h>

#include <string>
#include <string_view>

namespace tavix::restclient::detail {

// "http[s]://host:port/" + path + suffix. The path goes in as it stands: one that begins with
// "/" gives a doubled slash, which the services receive as it is.
inline std::string serviceUrl(bool tls, std::string const& host, unsigned int port, std::string const& path,
                              std::string_view suffix = {})
{
    return fmt::format("{}://{}:{}/{}{}", tls ? "https" : "http", host, port, path, suffix);
}

// Prepares `request` for a JSON exchange with `text`: the parsed URL, then the client's own
// fields (`ownFields(url)` sets Authorization and the like), then Accept and Content-Type
// "application/json". The order is the order of the header lines on the wire. A text that does
// not parse is returned, and the request is left as it was.
template <typename OwnFields>
boost::system::error_code prepareJsonRequest(net::http::HttpRequest& request, std::string const& text,
                                             OwnFields&& ownFields)
{
    boost::system::error_code ec;
    net::http::Url const url = net::http::Url::createUrl(text, ec);
    if (ec) return ec;
    request.url(url);
    ownFields(url);
    request.accept("application/json");
    request.contentType("application/json");
    return ec;
}

} // namespace tavix::restclient::detail
