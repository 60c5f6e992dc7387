// Server certificates the fixed test set lacks, signed by the test CA at run time: for names
// other than the server's (a host-name mismatch), or with a validity that has already ended.
#pragma once

#include <tools/emulator/HttpServer.h>

#include <chrono>
#include <string>

namespace tavix::test::certs {

// Writes <directory>/<name>.pem and <name>-key.pem for `altNames` (e.g. "DNS:elsewhere.example"),
// valid from now + `notBefore` to now + `notAfter`. Throws std::runtime_error when OpenSSL fails.
emulator::TlsFiles issueServerCertificate(std::string const& directory, std::string const& name,
                                          std::string const& altNames, std::chrono::seconds notBefore,
                                          std::chrono::seconds notAfter);

} // namespace tavix::test::certs
