// Throw-away certificates for serving HTTPS without any set-up: a CA, a server certificate it
// signs, and a client certificate a device can present. Kept in the emulator's data directory,
// so that a device that trusts the CA keeps trusting it across restarts.
#pragma once

#include <boost/filesystem/path.hpp>

#include <string>
#include <vector>

namespace tavix::emulator {

struct CertificateSet {
    boost::filesystem::path ca;                // ca.pem: what a device trusts
    boost::filesystem::path serverCertificate; // server.pem
    boost::filesystem::path serverKey;         // server-key.pem
    boost::filesystem::path client;            // client.pem: certificate and key in one file
};

// Makes the set in `directory`, keeping a CA and client certificate made earlier; the server
// certificate is made anew for `serverNames` (DNS names or IP addresses). Throws
// std::runtime_error when OpenSSL or the file system fails.
CertificateSet makeCertificates(boost::filesystem::path const& directory, std::vector<std::string> const& serverNames);

} // namespace tavix::emulator
