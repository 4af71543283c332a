#pragma once

#include <openssl/ssl.h>

namespace quorvane::platform {

/// Makes the context trust the certificates of /etc/quorvane/trust/*.pem besides what it trusts already. A
/// file that cannot be read is logged by name and left out. Thread-safe.
void trustConfiguredCertificates(SSL_CTX& context);

}  // namespace quorvane::platform
