#pragma once

#include <openssl/ssl.h>

#include <string>
#include <string_view>
#include <vector>

namespace quorvane::platform {

inline constexpr std::string_view kTrustFolder = "/etc/quorvane/trust";

/// Makes the context trust the certificates of that folder's *.pem besides what it trusts already. A file
/// that cannot be read is logged by name and left out. Thread-safe.
void trustConfiguredCertificates(SSL_CTX& context);

/// What one of those files adds to the trust.
struct TrustedFile {
    std::string path;
    bool isReadable = false;  ///< It holds certificates and nothing that is damaged.
    bool isInForce = false;   ///< All of them are valid now.
};

/// Thread-safe.
std::vector<TrustedFile> trustedFiles();

}  // namespace quorvane::platform
