#include "framework/QuorvaneBundle.h"
#include "platform/base/Root.h"
#include "platform/http/TrustedCertificates.h"
#include "storebag/FetchStorebag.h"
#include "tools/ctl/doctor/Checks.h"

#include <string>

#include <fmt/format.h>

namespace quorvane::ctl {

namespace {

Finding findingOf(const PublicKeyResource& resource) {
    const auto key = storebagPublicKey(resource.der);
    if (key) return good(resource.file, "an RSA key in DER form");
    return fault(resource.file, key.error().message,
                 "copy the DER file that `quorvane-storebag keygen --public-key` writes there");
}

Finding versionFinding() {
    const std::string file = platform::rooted(kBundleInfoFile);
    if (const auto version = bundleVersion()) return good(file, "version " + *version);
    return warning(file,
                   fmt::format("no CFBundleVersion: servers are told version {}", kDefaultBundleVersion),
                   "install the framework's files again");
}

Finding findingOf(const platform::TrustedFile& file) {
    if (!file.isReadable)
        return fault(file.path, "no certificates in PEM form, or something among them is damaged",
                     "write the certificate of the server's authority there");
    if (!file.isInForce)
        return fault(file.path, "a certificate in it is not valid now",
                     "renew it, if the device's clock is right");
    return good(file.path, "certificates that are valid now");
}

}  // namespace

Findings checkTrust() {
    Findings findings;
    for (const PublicKeyResource& resource : publicKeyResources()) findings.push_back(findingOf(resource));
    findings.push_back(versionFinding());
    for (const platform::TrustedFile& file : platform::trustedFiles()) findings.push_back(findingOf(file));
    return findings;
}

}  // namespace quorvane::ctl
