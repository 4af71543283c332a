#include "tools/storebag/Envelope.h"

#include "platform/formats/PropertyList.h"
#include "tools/common/Failure.h"
#include "tools/common/Files.h"

#include <utility>

#include <fmt/format.h>

namespace quorvane::tools {

namespace {

Dictionary rootOf(const Data& bytes, std::string_view name, std::string_view what) {
    auto parsed = platform::parsePropertyList(bytes);
    if (const auto* error = std::get_if<platform::PropertyListError>(&parsed))
        throw Failure(fmt::format("{}: {} is no property list: {}", name, what, error->description));
    Dictionary* root = std::get<Value>(parsed).dictionary();
    if (root == nullptr) throw Failure(fmt::format("{}: {} is no dictionary", name, what));
    return std::move(*root);
}

Data decoded(const Dictionary& root, std::string_view key, std::string_view name) {
    const Value* held = root.find(key);
    if (held == nullptr) throw Failure(fmt::format("{}: \"{}\" is missing", name, key));
    const std::string* text = held->string();
    auto bytes = text != nullptr ? platform::base64Decode(*text) : std::nullopt;
    if (!bytes) throw Failure(fmt::format("{}: \"{}\" is no base64 text", name, key));
    return *std::move(bytes);
}

}  // namespace

Envelope openEnvelope(const Data& bytes, std::string_view name) {
    const Dictionary root = rootOf(bytes, name, "the envelope");
    Data signature = decoded(root, "signature", name);
    return {.signature = std::move(signature), .bagBytes = decoded(root, "bag", name)};
}

Dictionary bagOf(const Envelope& envelope, std::string_view name) {
    return rootOf(envelope.bagBytes, name, "the bag");
}

std::unique_ptr<platform::RsaPublicKey> readPublicKey(const std::string& path) {
    auto key = platform::RsaPublicKey::initWithDER(readBytes(path));
    if (!key) throw Failure(fmt::format("{}: no RSA public key in DER form", nameOfInput(path)));
    return key;
}

bool isSignedWith(const Envelope& envelope, const platform::RsaPublicKey& key) {
    return key.verifyPKCS1SHA1(platform::sha1(envelope.bagBytes), envelope.signature);
}

}  // namespace quorvane::tools
