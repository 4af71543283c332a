#pragma once

#include "platform/value/Value.h"
#include "tools/storebag/SigningKey.h"

#include <optional>
#include <span>

namespace quorvane::tools {

/// The signed envelope that a storebag server hands out: an XML property list with the bag, an XML property
/// list of its own, and the signature over the bag's bytes, both in base64. The bag is not looked into.
/// Nothing when a property list cannot hold the bag.
std::optional<Data> signStorebag(const Dictionary& bag, const SigningKey& key);

/// The same for a bag that is written already, well-formed or not.
std::optional<Data> signStorebagBytes(std::span<const std::uint8_t> bag, const SigningKey& key);

}  // namespace quorvane::tools
