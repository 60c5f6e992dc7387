#include <tools/emulator/UrlSigner.h>

#include <tools/emulator/PrivateFiles.h>

#include <tools/emulator/Routing.h>

#include <boost/filesystem/fstream.hpp>
#include <boost/filesystem/operations.hpp>

#include <fmt/format.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

namespace tavix::emulator {

UrlSigner::UrlSigner(boost::filesystem::path const& secretFile)
{
    if (boost::filesystem::exists(secretFile)) {
        boost::filesystem::ifstream in(secretFile);
        std::getline(in, m_secret);
    }
    if (m_secret.empty()) {
        m_secret = randomHex(32);
        // Whoever reads it can sign URLs.
        writePrivateFile(secretFile, m_secret + "\n");
    }
}

std::string UrlSigner::signature(std::string const& operation, std::string const& objectId, long long expires) const
{
    std::string message = fmt::format("{}\n{}\n{}", operation, objectId, expires);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    HMAC(EVP_sha256(), m_secret.data(), static_cast<int>(m_secret.size()),
         reinterpret_cast<unsigned char const*>(message.data()), message.size(), digest, &length);
    std::string hex;
    for (unsigned int i = 0; i < length; ++i) hex += fmt::format("{:02x}", digest[i]);
    return hex;
}

std::string UrlSigner::signedQuery(std::string const& operation, std::string const& objectId, long long expires) const
{
    return fmt::format("op={}&expires={}&signature={}", operation, expires, signature(operation, objectId, expires));
}

bool UrlSigner::verify(std::string const& query, std::string const& operation, std::string const& objectId) const
{
    auto op = queryValue(query, "op");
    auto expiresText = queryValue(query, "expires");
    auto given = queryValue(query, "signature");
    if (!op || *op != operation || !expiresText || !given || expiresText->empty()) return false;
    long long expires = 0;
    try {
        std::size_t used = 0;
        expires = std::stoll(*expiresText, &used);
        if (used != expiresText->size()) return false;
    } catch (std::exception const&) {
        return false;
    }
    std::string expected = signature(operation, objectId, expires);
    return given->size() == expected.size() && CRYPTO_memcmp(given->data(), expected.data(), expected.size()) == 0
        && now() < expires;
}

} // namespace tavix::emulator
