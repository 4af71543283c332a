#include "tests/support/TestCertificate.h"

#include "platform/Owned.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <fstream>
#include <functional>
#include <stdexcept>

namespace quorvane::test {

namespace {

using Certificate = platform::Owned<X509, X509_free>;
using Key = platform::Owned<EVP_PKEY, EVP_PKEY_free>;
using Memory = platform::Owned<BIO, BIO_free>;

void require(bool holds, const char* what) {
    if (!holds) throw std::runtime_error(std::string("TestCertificate: ") + what);
}

void addExtension(X509* certificate, int kind, const char* value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    const platform::Owned<X509_EXTENSION, X509_EXTENSION_free> extension(
        X509V3_EXT_conf_nid(nullptr, &context, kind, value));
    require(extension && X509_add_ext(certificate, extension.get(), -1) == 1, "extension");
}

Certificate selfSigned(EVP_PKEY* key) {
    Certificate certificate(X509_new());
    X509_set_version(certificate.get(), X509_VERSION_3);
    // Two certificates of one issuer must differ in their number, or a verifier mixes them up.
    std::uint32_t serial = 0;
    RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial);
    ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate.get()), serial);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
    X509_set_pubkey(certificate.get(), key);

    X509_NAME* name = X509_get_subject_name(certificate.get());
    const std::string commonName = "test server " + std::to_string(serial);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0);
    X509_set_issuer_name(certificate.get(), name);
    addExtension(certificate.get(), NID_basic_constraints, "critical,CA:TRUE");
    addExtension(certificate.get(), NID_subject_key_identifier, "hash");
    addExtension(certificate.get(), NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost");
    require(X509_sign(certificate.get(), key, EVP_sha256()) > 0, "signature");
    return certificate;
}

std::string pem(const std::function<bool(BIO*)>& write) {
    const Memory memory(BIO_new(BIO_s_mem()));
    require(memory && write(memory.get()), "PEM");
    char* text = nullptr;
    const long size = BIO_get_mem_data(memory.get(), &text);
    return {text, static_cast<std::size_t>(size)};
}

Memory memoryOf(const std::string& text) {
    return Memory(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

}  // namespace

TestCertificate makeTestCertificate() {
    const Key key(EVP_EC_gen("P-256"));
    require(key != nullptr, "key");
    const Certificate certificate = selfSigned(key.get());
    return {pem([&](BIO* out) { return PEM_write_bio_X509(out, certificate.get()) == 1; }),
            pem([&](BIO* out) {
                return PEM_write_bio_PrivateKey(out, key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1;
            })};
}

bool useCertificate(SSL_CTX& context, const TestCertificate& certificate) {
    const Certificate shown(
        PEM_read_bio_X509(memoryOf(certificate.certificate).get(), nullptr, nullptr, nullptr));
    const Key key(PEM_read_bio_PrivateKey(memoryOf(certificate.key).get(), nullptr, nullptr, nullptr));
    return SSL_CTX_use_certificate(&context, shown.get()) == 1 &&
           SSL_CTX_use_PrivateKey(&context, key.get()) == 1;
}

void trustCertificate(const TestCertificate& certificate, const std::filesystem::path& root,
                      const std::string& name) {
    const std::filesystem::path folder = root / "etc/quorvane/trust";
    std::filesystem::create_directories(folder);
    const std::filesystem::path unfinished = folder / (name + ".unfinished");
    std::ofstream(unfinished) << certificate.certificate;
    std::filesystem::rename(unfinished, folder / (name + ".pem"));
}

}  // namespace quorvane::test
