#include "platform/http/TrustedCertificates.h"

#include "platform/base/FileManager.h"
#include "platform/base/Log.h"
#include "platform/base/Owned.h"
#include "platform/base/Root.h"

#include <fmt/format.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <optional>
#include <string>
#include <system_error>

namespace quorvane::platform {

namespace {

constexpr std::size_t kMaximumFileBytes = 1u << 20;

using Memory = Owned<BIO, BIO_free>;
using Certificate = Owned<X509, X509_free>;

/// Whether the bytes hold certificates and nothing that is damaged.
bool addCertificates(X509_STORE& store, const Data& pem) {
    const Memory source(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    std::size_t found = 0;
    while (source != nullptr) {
        const Certificate certificate(PEM_read_bio_X509(source.get(), nullptr, nullptr, nullptr));
        if (certificate == nullptr) break;
        if (X509_STORE_add_cert(&store, certificate.get()) != 1) return false;
        ++found;
    }
    const bool atEnd = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
    return found > 0 && atEnd;
}

}  // namespace

void trustConfiguredCertificates(SSL_CTX& context) {
    X509_STORE* store = SSL_CTX_get_cert_store(&context);
    if (store == nullptr) return;
    const std::string folder = rooted("/etc/quorvane/trust");
    std::error_code absent;
    for (const std::string& name : listDirectory(folder, absent)) {
        if (!name.ends_with(".pem")) continue;
        const std::string path = fmt::format("{}/{}", folder, name);
        const std::optional<Data> pem = readFile(path, kMaximumFileBytes);
        ERR_clear_error();
        if (!pem || !addCertificates(*store, *pem))
            logWarning("trustConfiguredCertificates: {} holds no readable certificates", path);
        ERR_clear_error();
    }
}

}  // namespace quorvane::platform
