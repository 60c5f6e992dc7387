#include <tools/emulator/Certificates.h>

#include <tools/emulator/PrivateFiles.h>

#include <boost/asio/ip/address.hpp>
#include <boost/filesystem/operations.hpp>

#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <sys/stat.h>

#include <cstdio>
#include <memory>
#include <stdexcept>

namespace fs = boost::filesystem;

namespace tavix::emulator {
namespace {

template <class T, void (*Free)(T*)>
struct Deleter {
    void operator()(T* p) const { Free(p); }
};
using Key = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Deleter<X509, X509_free>>;

[[noreturn]] void fail(std::string const& what)
{
    char reason[256] = "";
    ERR_error_string_n(ERR_get_error(), reason, sizeof reason);
    throw std::runtime_error("cannot make certificates: " + what + (reason[0] ? std::string(": ") + reason : ""));
}

Key newKey()
{
    Key key(EVP_EC_gen("P-256"));
    if (!key) fail("new key");
    return key;
}

void addExtension(X509* certificate, X509* issuer, int nid, std::string const& value)
{
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION, X509_EXTENSION_free>> extension(
        X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()));
    if (!extension || X509_add_ext(certificate, extension.get(), -1) != 1) fail("extension " + value);
}

// Signed by `issuer` with `issuerKey`; a null issuer makes it self-signed.
Certificate newCertificate(std::string const& commonName, EVP_PKEY* key, X509* issuer, EVP_PKEY* issuerKey,
                           std::vector<std::pair<int, std::string>> const& extensions)
{
    Certificate certificate(X509_new());
    std::unique_ptr<BIGNUM, Deleter<BIGNUM, BN_free>> serial(BN_new());
    X509_NAME* name = certificate ? X509_get_subject_name(certificate.get()) : nullptr;
    if (!certificate || !serial || X509_set_version(certificate.get(), 2) != 1 || BN_rand(serial.get(), 64, 0, 0) != 1
        || !BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(certificate.get()))
        || !X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600)
        || !X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3650L * 24 * 3600)
        || X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                      reinterpret_cast<unsigned char const*>(commonName.c_str()), -1, -1, 0)
            != 1
        || X509_set_issuer_name(certificate.get(), issuer ? X509_get_subject_name(issuer) : name) != 1
        || X509_set_pubkey(certificate.get(), key) != 1)
        fail("certificate " + commonName);
    X509* signer = issuer ? issuer : certificate.get();
    addExtension(certificate.get(), signer, NID_subject_key_identifier, "hash");
    addExtension(certificate.get(), signer, NID_authority_key_identifier, "keyid");
    for (auto const& [nid, value] : extensions) addExtension(certificate.get(), signer, nid, value);
    if (X509_sign(certificate.get(), issuerKey ? issuerKey : key, EVP_sha256()) == 0) fail("signing " + commonName);
    return certificate;
}

// Writes the PEM blocks to `path` (only its owner may read it: it may hold a key).
void writePem(fs::path const& path, X509* certificate, EVP_PKEY* key)
{
    fs::path const temporary = path.string() + ".tmp";
    mode_t const previous = ::umask(077);
    FILE* file = std::fopen(temporary.c_str(), "w");
    ::umask(previous);
    if (!file) fail("writing " + temporary.string());
    bool written = (!certificate || PEM_write_X509(file, certificate) == 1)
        && (!key || PEM_write_PrivateKey(file, key, nullptr, nullptr, 0, nullptr, nullptr) == 1);
    written = std::fclose(file) == 0 && written;
    if (!written) fail("writing " + temporary.string());
    fs::rename(temporary, path);
}

Key readKey(fs::path const& path)
{
    FILE* file = std::fopen(path.c_str(), "r");
    Key key(file ? PEM_read_PrivateKey(file, nullptr, nullptr, nullptr) : nullptr);
    if (file) std::fclose(file);
    return key;
}

Certificate readCertificate(fs::path const& path)
{
    FILE* file = std::fopen(path.c_str(), "r");
    Certificate certificate(file ? PEM_read_X509(file, nullptr, nullptr, nullptr) : nullptr);
    if (file) std::fclose(file);
    return certificate;
}

std::string subjectAltNames(std::vector<std::string> const& names)
{
    std::string text;
    for (std::string const& name : names) {
        boost::system::error_code notAnAddress;
        boost::asio::ip::make_address(name, notAnAddress);
        text += (text.empty() ? "" : ",") + std::string(notAnAddress ? "DNS:" : "IP:") + name;
    }
    return text;
}

} // namespace

CertificateSet makeCertificates(fs::path const& directory, std::vector<std::string> const& serverNames)
{
    makePrivateDirectory(directory);
    CertificateSet set{directory / "ca.pem", directory / "server.pem", directory / "server-key.pem",
                       directory / "client.pem"};
    fs::path const caKeyPath = directory / "ca-key.pem";

    Certificate ca = readCertificate(set.ca);
    Key caKey = readKey(caKeyPath);
    bool const fresh = !ca || !caKey || X509_check_private_key(ca.get(), caKey.get()) != 1
        || !readCertificate(set.client) || !readKey(set.client);
    if (fresh) {
        caKey = newKey();
        ca = newCertificate(
            "restclient-emulator throw-away CA", caKey.get(), nullptr, nullptr,
            {{NID_basic_constraints, "critical,CA:TRUE"}, {NID_key_usage, "critical,keyCertSign,cRLSign"}});
        writePem(caKeyPath, nullptr, caKey.get());
        writePem(set.ca, ca.get(), nullptr);
        Key clientKey = newKey();
        Certificate client = newCertificate("restclient-emulator client", clientKey.get(), ca.get(), caKey.get(),
                                            {{NID_basic_constraints, "critical,CA:FALSE"},
                                             {NID_key_usage, "critical,digitalSignature"},
                                             {NID_ext_key_usage, "clientAuth"}});
        writePem(set.client, client.get(), clientKey.get());
    }
    Key serverKey = newKey();
    Certificate server =
        newCertificate(serverNames.empty() ? "localhost" : serverNames.front(), serverKey.get(), ca.get(), caKey.get(),
                       {{NID_basic_constraints, "critical,CA:FALSE"},
                        {NID_key_usage, "critical,digitalSignature"},
                        {NID_ext_key_usage, "serverAuth"},
                        {NID_subject_alt_name, subjectAltNames(serverNames)}});
    writePem(set.serverKey, nullptr, serverKey.get());
    writePem(set.serverCertificate, server.get(), nullptr);
    return set;
}

} // namespace tavix::emulator
