#include "collector/TlsContext.h"

#include "collector/StartError.h"
#include "platform/base/Owned.h"

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <string>

namespace quorvane::collector {

namespace {

using Bio = platform::Owned<BIO, BIO_free>;

Bio memoryOf(const std::string& text) {
    return Bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

bool useChain(SSL_CTX& context, const std::string& pem) {
    const Bio memory = memoryOf(pem);
    bool first = true;
    while (X509* certificate = PEM_read_bio_X509(memory.get(), nullptr, nullptr, nullptr)) {
        const bool taken = (first ? SSL_CTX_use_certificate(&context, certificate)
                                  : SSL_CTX_add1_chain_cert(&context, certificate)) == 1;
        X509_free(certificate);
        if (!taken) return false;
        first = false;
    }
    return !first;
}

bool useKey(SSL_CTX& context, const std::string& pem) {
    const Bio memory = memoryOf(pem);
    EVP_PKEY* key = PEM_read_bio_PrivateKey(memory.get(), nullptr, nullptr, nullptr);
    const bool taken = key != nullptr && SSL_CTX_use_PrivateKey(&context, key) == 1;
    EVP_PKEY_free(key);
    return taken && SSL_CTX_check_private_key(&context) == 1;
}

}  // namespace

TlsContext makeTlsContext(const Certificate& certificate) {
    TlsContext context(SSL_CTX_new(TLS_server_method()));
    if (!context) throw StartError("cannot set up TLS");
    SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
    if (!useChain(*context, certificate.chain)) throw StartError("the certificate is not usable");
    if (!useKey(*context, certificate.key))
        throw StartError("the key is not usable or not the certificate's");
    return context;
}

}  // namespace quorvane::collector
