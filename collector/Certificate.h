#pragma once

#include <string>
#include <vector>

namespace quorvane::collector {

/// What the server shows to its clients, both PEM: the certificate, followed by the rest of its chain, and
/// its private key.
struct Certificate {
    std::string chain;
    std::string key;
};

/// Makes a self-signed certificate for the host names and addresses, good for a year; its key is a new one
/// and is written nowhere. It signs nothing else: whoever trusts it trusts this server alone. Throws
/// StartError when a name is neither a host name nor an address.
Certificate makeCertificate(const std::vector<std::string>& names);

/// Reads both from PEM files; throws StartError when one cannot be read.
Certificate readCertificate(const std::string& chainFile, const std::string& keyFile);

}  // namespace quorvane::collector
