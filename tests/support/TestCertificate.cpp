#include "tests/support/TestCertificate.h"

#include "platform/base/Owned.h"

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <fstream>

namespace quorvane::test {

namespace {

using Memory = platform::Owned<BIO, BIO_free>;

Memory memoryOf(const std::string& text) {
    return Memory(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

}  // namespace

TestCertificate makeTestCertificate() {
    return collector::makeCertificate({"127.0.0.1", "localhost"});
}

bool useCertificate(SSL_CTX& context, const TestCertificate& certificate) {
    const platform::Owned<X509, X509_free> shown(
        PEM_read_bio_X509(memoryOf(certificate.chain).get(), nullptr, nullptr, nullptr));
    const platform::Owned<EVP_PKEY, EVP_PKEY_free> key(
        PEM_read_bio_PrivateKey(memoryOf(certificate.key).get(), nullptr, nullptr, nullptr));
    return SSL_CTX_use_certificate(&context, shown.get()) == 1 &&
           SSL_CTX_use_PrivateKey(&context, key.get()) == 1;
}

void trustCertificate(const TestCertificate& certificate, const std::filesystem::path& root,
                      const std::string& name) {
    const std::filesystem::path folder = root / "etc/quorvane/trust";
    std::filesystem::create_directories(folder);
    const std::filesystem::path unfinished = folder / (name + ".unfinished");
    std::ofstream(unfinished) << certificate.chain;
    std::filesystem::rename(unfinished, folder / (name + ".pem"));
}

}  // namespace quorvane::test
