#pragma once

#include "platform/value/Value.h"

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace quorvane::tools {

inline constexpr unsigned kMinimumKeyBits = 2048;
inline constexpr unsigned kMaximumKeyBits = 16384;

/// The RSA key pair that storebags are signed with.
class SigningKey {
  public:
    /// A new pair; null when the number of bits is outside the bounds above. Takes a second and more for long
    /// keys.
    static std::unique_ptr<SigningKey> generate(unsigned bits = kMinimumKeyBits);
    /// From an unencrypted PEM private key (PKCS#8 or PKCS#1); null when it is none, or not RSA.
    static std::unique_ptr<SigningKey> initWithPEM(std::string_view pem);
    ~SigningKey();

    unsigned bits() const;
    /// Unencrypted PKCS#8.
    std::string privatePEM() const;
    /// SubjectPublicKeyInfo, what devices have as publicKey.der.
    Data publicDER() const;

    /// RSASSA-PKCS1-v1_5 with SHA-1 (RFC 8017) over the bytes.
    std::optional<Data> signPKCS1SHA1(std::span<const std::uint8_t> bytes) const;

  private:
    struct Held;
    explicit SigningKey(std::unique_ptr<Held> held);
    std::unique_ptr<Held> _held;
};

}  // namespace quorvane::tools
