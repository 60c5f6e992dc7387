// Request set-up shared by the storage clients (internal).
#pragma once

#include <platform/net/http/HttpMessage.h>

#include <boost/system/error_code.hpp>

#include <string>

namespace tavix::restclient::storage::detail {

// Sets the parsed `text` as the request's URL; on a parse error nothing is changed.
inline boost::system::error_code address(net::http::HttpRequest& request, std::string const& text)
{
    boost::system::error_code ec;
    net::http::Url url = net::http::Url::createUrl(text, ec);
    if (!ec) request.url(url);
    return ec;
}

inline void acceptJson(net::http::HttpRequest& request)
{
    request.accept("application/json");
    request.contentType("application/json");
}

} // namespace tavix::restclient::storage::detail
