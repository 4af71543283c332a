#include "tools/storebag/SignStorebag.h"

#include "platform/crypto/Crypto.h"
#include "platform/formats/PropertyList.h"

namespace quorvane::tools {

std::optional<Data> signStorebag(const Dictionary& bag, const SigningKey& key) {
    const auto bytes = platform::xmlPropertyList(Value(bag));
    return bytes ? signStorebagBytes(*bytes, key) : std::nullopt;
}

std::optional<Data> signStorebagBytes(std::span<const std::uint8_t> bag, const SigningKey& key) {
    const auto signature = key.signPKCS1SHA1(bag);
    if (!signature) return std::nullopt;
    return platform::xmlPropertyList(Value(
        Dictionary{{"bag", platform::base64Encode(bag)}, {"signature", platform::base64Encode(*signature)}}));
}

}  // namespace quorvane::tools
