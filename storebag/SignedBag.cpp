#include "storebag/SignedBag.h"

#include "platform/formats/PropertyList.h"

#include <optional>
#include <string_view>
#include <utility>

#include <fmt/format.h>

namespace quorvane {

namespace {

using Fault = SignedBagError::Fault;

tl::unexpected<SignedBagError> notOpened(Fault fault, std::string message) {
    return tl::unexpected<SignedBagError>({fault, std::move(message)});
}

platform::Result<Data> decoded(const Dictionary& envelope, std::string_view key) {
    const Value* held = envelope.find(key);
    if (held == nullptr) return platform::failure(fmt::format("\"{}\" is missing", key));
    const std::string* text = held->string();
    std::optional<Data> bytes = text != nullptr ? platform::base64Decode(*text) : std::nullopt;
    if (!bytes) return platform::failure(fmt::format("\"{}\" is no base64 text", key));
    return *std::move(bytes);
}

}  // namespace

SignedBag::SignedBag(Data signature, Data bytes)
    : _signature(std::move(signature)), _bytes(std::move(bytes)) {}

tl::expected<SignedBag, SignedBagError> SignedBag::open(std::span<const std::uint8_t> envelope) {
    const auto parsed = platform::parsePropertyList(envelope);
    if (!parsed) return notOpened(Fault::NoPropertyList, parsed.error().message);
    const Dictionary* root = parsed->dictionary();
    if (root == nullptr) return notOpened(Fault::NoSignature, "the envelope is no dictionary");

    platform::Result<Data> signature = decoded(*root, "signature");
    if (!signature)
        return notOpened(root->string("signature") == nullptr ? Fault::NoSignature : Fault::Undecodable,
                         std::move(signature.error().message));
    platform::Result<Data> bytes = decoded(*root, "bag");
    if (!bytes) return notOpened(Fault::Undecodable, std::move(bytes.error().message));
    return SignedBag(*std::move(signature), *std::move(bytes));
}

bool SignedBag::isSignedWith(const platform::RsaPublicKey& key) const {
    return key.verifyPKCS1SHA1(platform::sha1(_bytes), _signature);
}

platform::Result<Dictionary> SignedBag::bag() const {
    auto parsed = platform::parsePropertyList(_bytes);
    if (!parsed)
        return platform::failure(fmt::format("the bag is no property list: {}", parsed.error().message));
    Dictionary* root = parsed->dictionary();
    if (root == nullptr) return platform::failure("the bag is no dictionary");
    return std::move(*root);
}

}  // namespace quorvane
