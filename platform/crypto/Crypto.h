#pragma once

#include "platform/value/Value.h"

#include <array>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace quorvane::platform {

using Sha1Digest = std::array<std::uint8_t, 20>;
using Sha256Digest = std::array<std::uint8_t, 32>;

Sha1Digest sha1(std::span<const std::uint8_t> bytes);
Sha256Digest sha256(std::span<const std::uint8_t> bytes);

/// Standard base64 (RFC 4648 section 4) with padding, without line breaks.
std::string base64Encode(std::span<const std::uint8_t> bytes);

/// Decodes base64 and ignores every character outside its alphabet; nothing when what is left is no base64.
std::optional<Data> base64Decode(std::string_view text);

/// An RSA public key.
class RsaPublicKey {
  public:
    /// From a DER SubjectPublicKeyInfo or PKCS#1 RSAPublicKey; null when the bytes are neither.
    static std::unique_ptr<RsaPublicKey> initWithDER(std::span<const std::uint8_t> der);
    ~RsaPublicKey();

    /// RSASSA-PKCS1-v1_5 (RFC 8017) over a SHA-1 DigestInfo of the digest.
    bool verifyPKCS1SHA1(const Sha1Digest& digest, std::span<const std::uint8_t> signature) const;

  private:
    struct Held;
    explicit RsaPublicKey(std::unique_ptr<Held> held);
    std::unique_ptr<Held> _held;
};

}  // namespace quorvane::platform
