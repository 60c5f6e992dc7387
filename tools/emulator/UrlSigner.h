// Pre-signed transfer URLs: an HMAC over the operation, the object and the expiry time, keyed
// with a secret kept in the data directory so that URLs survive a restart of the emulator.
#pragma once

#include <boost/filesystem/path.hpp>

#include <string>

namespace tavix::emulator {

class UrlSigner {
public:
    // Reads the secret from `secretFile`, creating it on first use.
    explicit UrlSigner(boost::filesystem::path const& secretFile);

    // The query text of a signed URL: "op=<op>&expires=<t>&signature=<hex>".
    std::string signedQuery(std::string const& operation, std::string const& objectId, long long expires) const;
    // True when `query` carries a valid, unexpired signature for this operation and object.
    bool verify(std::string const& query, std::string const& operation, std::string const& objectId) const;

private:
    std::string signature(std::string const& operation, std::string const& objectId, long long expires) const;

    std::string m_secret;
};

} // namespace tavix::emulator
