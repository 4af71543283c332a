#include "tools/storebag/Envelope.h"

#include "tools/common/Failure.h"
#include "tools/common/Files.h"

#include <utility>

#include <fmt/format.h>

namespace quorvane::tools {

SignedBag openEnvelope(std::span<const std::uint8_t> bytes, std::string_view name) {
    auto opened = SignedBag::open(bytes);
    if (opened) return *std::move(opened);
    const bool unreadable = opened.error().fault == SignedBagError::Fault::NoPropertyList;
    throw Failure(fmt::format("{}: {}{}", name, unreadable ? "the envelope is no property list: " : "",
                              opened.error().message));
}

Dictionary bagOf(const SignedBag& envelope, std::string_view name) {
    auto bag = envelope.bag();
    if (!bag) throw Failure(fmt::format("{}: {}", name, bag.error().message));
    return *std::move(bag);
}

std::unique_ptr<platform::RsaPublicKey> readPublicKey(const std::string& path) {
    auto key = platform::RsaPublicKey::initWithDER(readBytes(path));
    if (!key) throw Failure(fmt::format("{}: no RSA public key in DER form", nameOfInput(path)));
    return key;
}

}  // namespace quorvane::tools
