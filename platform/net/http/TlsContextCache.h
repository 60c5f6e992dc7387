// The client TLS context shared by every HTTPS connection of the process. Building one parses
// the whole CA bundle, far too slow to do per connection, so it is built once and rebuilt
// only when the CA bundle or the client certificate named in the settings changes.
#pragma once

#include <boost/asio/ssl/context.hpp>
#include <boost/system/error_code.hpp>

#include <memory>
#include <string>

namespace tavix::net::http {

// `caFile` empty: the system's default CA paths. `clientCertFile` empty: no client certificate;
// otherwise one PEM holding the certificate (chain) and its key.
std::shared_ptr<boost::asio::ssl::context> sharedTlsContext(std::string const& caFile,
                                                            std::string const& clientCertFile,
                                                            boost::system::error_code& ec);

} // namespace tavix::net::http
