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

#include <algorithm>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace quorvane::platform {

namespace {

constexpr std::size_t kMaximumFileBytes = 1u << 20;

using Memory = Owned<BIO, BIO_free>;
using Certificate = Owned<X509, X509_free>;

struct Certificates {
    std::vector<Certificate> found;
    bool areWhole = false;  ///< There are some, and nothing is damaged.
};

Certificates certificatesIn(const Data& pem) {
    ERR_clear_error();
    const Memory source(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    Certificates certificates;
    while (source != nullptr) {
        Certificate certificate(PEM_read_bio_X509(source.get(), nullptr, nullptr, nullptr));
        if (certificate == nullptr) break;
        certificates.found.push_back(std::move(certificate));
    }
    const bool atEnd = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
    ERR_clear_error();
    certificates.areWhole = atEnd && !certificates.found.empty();
    return certificates;
}

/// Calls the function with each file's path and certificates.
template <typename Function>
void forEachTrustedFile(Function&& function) {
    const std::string folder = rooted(kTrustFolder);
    std::error_code absent;
    for (const std::string& name : listDirectory(folder, absent)) {
        if (!name.ends_with(".pem")) continue;
        std::string path = fmt::format("{}/{}", folder, name);
        const std::optional<Data> pem = readFile(path, kMaximumFileBytes);
        function(std::move(path), pem ? certificatesIn(*pem) : Certificates());
    }
}

bool isInForce(const Certificate& certificate) {
    return X509_cmp_current_time(X509_get0_notBefore(certificate.get())) < 0 &&
           X509_cmp_current_time(X509_get0_notAfter(certificate.get())) > 0;
}

}  // namespace

void trustConfiguredCertificates(SSL_CTX& context) {
    X509_STORE* store = SSL_CTX_get_cert_store(&context);
    if (store == nullptr) return;
    forEachTrustedFile([&](const std::string& path, const Certificates& certificates) {
        bool isTrusted = certificates.areWhole;
        for (const Certificate& certificate : certificates.found)
            isTrusted = X509_STORE_add_cert(store, certificate.get()) == 1 && isTrusted;
        ERR_clear_error();
        if (!isTrusted) logWarning("trustConfiguredCertificates: {} holds no readable certificates", path);
    });
}

std::vector<TrustedFile> trustedFiles() {
    std::vector<TrustedFile> files;
    forEachTrustedFile([&](std::string path, const Certificates& certificates) {
        files.push_back(
            {std::move(path), certificates.areWhole, std::ranges::all_of(certificates.found, isInForce)});
    });
    return files;
}

}  // namespace quorvane::platform
