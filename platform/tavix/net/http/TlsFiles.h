/// @file
/// The files an HTTPS set-up reads, checked before OpenSSL reads them: OpenSSL reports a missing or
/// unreadable file as a bare TLS error that names neither the file nor the reason.
#pragma once

#include <tavix/Export.h>

#include <boost/system/error_code.hpp>

#include <string>

namespace tavix::net::http {

/// The first of the settings' `ca_file` and `client_cert_file` (empty: not used) that cannot be
/// opened for reading, or is a directory: its error in the generic category
/// (no_such_file_or_directory, permission_denied, is_a_directory, ...), and in `which` its key and
/// path, e.g. "ca_file /etc/tavix/ca-bundle.pem". Success when both can be read. Opens each file:
/// meant for telling a failure, not for every request.
/// @param caFile         the CA bundle; empty: the system's, not checked
/// @param clientCertFile the client certificate and key; empty: none, not checked
/// @param which          when given, receives the failing key and path (untouched on success)
TAVIX_EXPORT boost::system::error_code checkTlsFiles(std::string const& caFile, std::string const& clientCertFile,
                                                     std::string* which = nullptr);

} // namespace tavix::net::http
