#pragma once

#include "collector/Certificate.h"

#include <openssl/ssl.h>

#include <memory>

namespace quorvane::collector {

struct TlsContextFreer {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
using TlsContext = std::unique_ptr<SSL_CTX, TlsContextFreer>;

/// What all connections of a server that shows the certificate share: TLS 1.2 or later. Throws StartError
/// when certificate and key are not usable together.
TlsContext makeTlsContext(const Certificate& certificate);

}  // namespace quorvane::collector
