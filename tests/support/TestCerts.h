// The certificates scripts/make-test-certs.sh made for the tests.
#pragma once

#include <tools/emulator/HttpServer.h>

#include <string>

namespace tavix::test::certs {

inline std::string file(std::string const& name) { return std::string(RESTCLIENT_TEST_CERT_DIR) + "/" + name; }

inline std::string ca() { return file("ca.pem"); }
// A client certificate and its key in one PEM, signed by `ca()`.
inline std::string client() { return file("client.pem"); }

// For localhost and 127.0.0.1, signed by `ca()`.
inline emulator::TlsFiles trustedServer() { return {file("server.pem"), file("server-key.pem")}; }
// Self-signed, same names: nothing trusts it.
inline emulator::TlsFiles untrustedServer() { return {file("untrusted.pem"), file("untrusted-key.pem")}; }

} // namespace tavix::test::certs
