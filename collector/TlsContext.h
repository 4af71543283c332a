#pragma once

#include "collector/Certificate.h"
#include "platform/base/Owned.h"

#include <openssl/ssl.h>

namespace quorvane::collector {

using TlsContext = platform::Owned<SSL_CTX, SSL_CTX_free>;

/// What all connections of a server that shows the certificate share: TLS 1.2 or later. Throws StartError
/// when certificate and key are not usable together.
TlsContext makeTlsContext(const Certificate& certificate);

}  // namespace quorvane::collector
