#include <tests/support/IssuedCertificate.h>

#include <tests/support/TestCerts.h>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>

namespace tavix::test::certs {

namespace {

template <class T, void (*Free)(T*)>
struct Deleter {
    void operator()(T* p) const { Free(p); }
};
template <class T, void (*Free)(T*)>
using Owned = std::unique_ptr<T, Deleter<T, Free>>;
void closeFile(FILE* file) { std::fclose(file); }
using File = Owned<FILE, closeFile>;

void check(bool ok, std::string const& what)
{
    if (!ok) throw std::runtime_error("issueServerCertificate: " + what);
}

template <class T>
T* readPem(std::string const& path, T* (*read)(FILE*, T**, pem_password_cb*, void*))
{
    File file(std::fopen(path.c_str(), "r"));
    check(file != nullptr, "cannot open " + path);
    T* value = read(file.get(), nullptr, nullptr, nullptr);
    check(value != nullptr, "cannot read " + path);
    return value;
}

void writePem(std::string const& path, std::function<int(FILE*)> const& write)
{
    File file(std::fopen(path.c_str(), "w"));
    check(file && write(file.get()) == 1, "cannot write " + path);
}

} // namespace

emulator::TlsFiles issueServerCertificate(std::string const& directory, std::string const& name,
                                          std::string const& altNames, std::chrono::seconds notBefore,
                                          std::chrono::seconds notAfter)
{
    Owned<X509, X509_free> ca(readPem<X509>(certs::ca(), PEM_read_X509));
    Owned<EVP_PKEY, EVP_PKEY_free> caKey(readPem<EVP_PKEY>(file("ca-key.pem"), PEM_read_PrivateKey));
    Owned<EVP_PKEY, EVP_PKEY_free> key(EVP_EC_gen("P-256"));
    Owned<X509, X509_free> certificate(X509_new());
    check(key && certificate, "no memory");

    X509_NAME* subject = X509_get_subject_name(certificate.get());
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, ca.get(), certificate.get(), nullptr, nullptr, 0);
    Owned<X509_EXTENSION, X509_EXTENSION_free> names(
        X509V3_EXT_conf_nid(nullptr, &context, NID_subject_alt_name, altNames.c_str()));
    check(X509_set_version(certificate.get(), 2) == 1
              && ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), std::random_device()()) == 1
              && X509_gmtime_adj(X509_getm_notBefore(certificate.get()), notBefore.count())
              && X509_gmtime_adj(X509_getm_notAfter(certificate.get()), notAfter.count())
              && X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8,
                                            reinterpret_cast<unsigned char const*>(name.c_str()), -1, -1, 0)
                  == 1
              && X509_set_issuer_name(certificate.get(), X509_get_subject_name(ca.get())) == 1
              && X509_set_pubkey(certificate.get(), key.get()) == 1 && names
              && X509_add_ext(certificate.get(), names.get(), -1) == 1
              && X509_sign(certificate.get(), caKey.get(), EVP_sha256()) != 0,
          "cannot make the certificate for " + name);

    emulator::TlsFiles files{directory + "/" + name + ".pem", directory + "/" + name + "-key.pem"};
    writePem(files.certificateChain, [&](FILE* f) { return PEM_write_X509(f, certificate.get()); });
    writePem(files.privateKey,
             [&](FILE* f) { return PEM_write_PrivateKey(f, key.get(), nullptr, nullptr, 0, nullptr, nullptr); });
    return files;
}

} // namespace tavix::test::certs
