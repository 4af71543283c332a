#pragma once

#include "collector/Certificate.h"

#include <openssl/types.h>

#include <filesystem>
#include <string>

namespace quorvane::test {

using TestCertificate = collector::Certificate;

/// Makes a certificate for 127.0.0.1 and localhost, as the collector makes its own.
TestCertificate makeTestCertificate();

/// Has a server of the context show the certificate; whether it was taken.
bool useCertificate(SSL_CTX& context, const TestCertificate& certificate);

/// Trusts the certificate in the root: puts it into ROOT/etc/quorvane/trust/NAME.pem, in one step.
void trustCertificate(const TestCertificate& certificate, const std::filesystem::path& root,
                      const std::string& name);

}  // namespace quorvane::test
