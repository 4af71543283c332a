#pragma once

#include "platform/base/Result.h"
#include "platform/crypto/Crypto.h"
#include "platform/value/Value.h"

#include <cstdint>
#include <span>
#include <string>

#include <tl/expected.hpp>

namespace quorvane {

/// Why bytes are no signed storebag.
struct SignedBagError {
    enum class Fault {
        NoPropertyList,  ///< The message is the parser's.
        NoSignature,     ///< No dictionary, or none with a text "signature" in it.
        Undecodable,     ///< "signature" or "bag" holds no base64 text.
    };
    Fault fault;
    std::string message;
};

/// A storebag as its server hands it out: the bag's bytes and the signature over them, unpacked from their
/// envelope. Neither is looked into; what the bag says counts only once isSignedWith() has been asked.
class SignedBag {
  public:
    static tl::expected<SignedBag, SignedBagError> open(std::span<const std::uint8_t> envelope);

    bool isSignedWith(const platform::RsaPublicKey& key) const;
    std::size_t signatureSize() const { return _signature.size(); }
    /// The bag itself; fails when its bytes are not a property list with a dictionary at its root.
    platform::Result<Dictionary> bag() const;

  private:
    SignedBag(Data signature, Data bytes);

    Data _signature;
    Data _bytes;
};

}  // namespace quorvane
