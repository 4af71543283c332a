#pragma once

#include <openssl/types.h>

#include <filesystem>
#include <string>

namespace quorvane::test {

/// A certificate and its private key, both PEM.
struct TestCertificate {
    std::string certificate;
    std::string key;
};

/// Makes a self-signed certificate for 127.0.0.1 and localhost, good for an hour; whoever trusts it trusts
/// the server that shows it. Every call makes another one.
TestCertificate makeTestCertificate();

/// Has a server of the context show the certificate; whether it was taken.
bool useCertificate(SSL_CTX& context, const TestCertificate& certificate);

/// Trusts the certificate in the root: puts it into ROOT/etc/quorvane/trust/NAME.pem, in one step.
void trustCertificate(const TestCertificate& certificate, const std::filesystem::path& root,
                      const std::string& name);

}  // namespace quorvane::test
