// The CONNECT leg of an https request through a proxy: on a socket connected to the proxy, asks
// for a tunnel to the origin and reads the proxy's answer head. TLS then runs through the tunnel
// end to end with the origin; the proxy sees only the origin's name and port.
#pragma once

#include <tavix/net/http/detail/Connection.h>

#include <boost/system/error_code.hpp>

#include <functional>
#include <memory>
#include <string>

namespace tavix::net::http {

// `authority` is "host:port" of the origin; `authorization` the Proxy-Authorization value, or
// empty. `done` runs on the connection's strand with success for a 2xx answer, the proxy's
// status in `proxy_category()` for any other, or the transport's error.
void openTunnel(std::shared_ptr<Connection> const& connection, std::string const& authority,
                std::string const& authorization, std::function<void(boost::system::error_code)> done);

} // namespace tavix::net::http
