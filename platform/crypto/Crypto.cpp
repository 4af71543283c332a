#include "platform/crypto/Crypto.h"

#include "platform/base/Owned.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <algorithm>
#include <utility>

namespace quorvane::platform {

namespace {

using DigestMethod = Owned<EVP_MD, EVP_MD_free>;
using DigestContext = Owned<EVP_MD_CTX, EVP_MD_CTX_free>;
using Key = Owned<EVP_PKEY, EVP_PKEY_free>;
using KeyContext = Owned<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;

/// All zeros when the library has no memory or no such digest: no signature fits that, and it tells nothing
/// of the bytes.
template <typename Digest>
Digest digestOf(std::span<const std::uint8_t> bytes, const EVP_MD* method) {
    thread_local const DigestContext context(EVP_MD_CTX_new());
    Digest digest{};
    if (context == nullptr || method == nullptr || EVP_DigestInit_ex(context.get(), method, nullptr) != 1 ||
        EVP_DigestUpdate(context.get(), bytes.data(), bytes.size()) != 1 ||
        EVP_DigestFinal_ex(context.get(), digest.data(), nullptr) != 1)
        return {};
    return digest;
}

bool inAlphabet(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/';
}

/// The key, when the bytes are one structure from end to end.
template <typename Parse>
Key keyFrom(std::span<const std::uint8_t> der, Parse&& parse) {
    const unsigned char* at = der.data();
    Key key(parse(&at, static_cast<long>(der.size())));
    // What is left in the thread's error queue would be taken for the error of a later call.
    ERR_clear_error();
    const bool whole = key != nullptr && at == der.data() + der.size();
    return whole && EVP_PKEY_get_base_id(key.get()) == EVP_PKEY_RSA ? std::move(key) : nullptr;
}

}  // namespace

// Each digest is looked up in the library once: a lookup costs more than hashing a short text.

Sha1Digest sha1(std::span<const std::uint8_t> bytes) {
    static const DigestMethod method(EVP_MD_fetch(nullptr, "SHA1", nullptr));
    return digestOf<Sha1Digest>(bytes, method.get());
}

Sha256Digest sha256(std::span<const std::uint8_t> bytes) {
    static const DigestMethod method(EVP_MD_fetch(nullptr, "SHA256", nullptr));
    return digestOf<Sha256Digest>(bytes, method.get());
}

std::string base64Encode(std::span<const std::uint8_t> bytes) {
    constexpr std::size_t kBlock = 3u << 20;  // a multiple of 3, and within an int
    std::string text((bytes.size() + 2) / 3 * 4, '\0');
    auto* out = reinterpret_cast<unsigned char*>(text.data());
    for (std::size_t at = 0; at < bytes.size(); at += kBlock) {
        const std::size_t size = std::min(kBlock, bytes.size() - at);
        out += EVP_EncodeBlock(out, bytes.data() + at, static_cast<int>(size));
    }
    return text;
}

std::optional<Data> base64Decode(std::string_view text) {
    Data decoded;
    decoded.reserve(text.size() / 4 * 3 + 3);
    std::uint32_t group = 0;
    unsigned digits = 0;
    unsigned padding = 0;
    for (const char c : text) {
        if (c == '=') {
            ++padding;
            continue;
        }
        if (!inAlphabet(c)) continue;
        if (padding > 0) return std::nullopt;
        const unsigned value = c >= 'a'   ? 26u + static_cast<unsigned>(c - 'a')
                               : c >= 'A' ? static_cast<unsigned>(c - 'A')
                               : c >= '0' ? 52u + static_cast<unsigned>(c - '0')
                               : c == '+' ? 62u
                                          : 63u;
        group = (group << 6) | value;
        if (++digits % 4 != 0) continue;
        for (const unsigned shift : {16u, 8u, 0u})
            decoded.push_back(static_cast<std::uint8_t>(group >> shift));
        group = 0;
    }
    const unsigned rest = digits % 4;
    if (padding != (rest == 0 ? 0 : 4 - rest) || rest == 1) return std::nullopt;
    if (rest >= 2) decoded.push_back(static_cast<std::uint8_t>(group >> (rest == 2 ? 4 : 10)));
    if (rest == 3) decoded.push_back(static_cast<std::uint8_t>(group >> 2));
    return decoded;
}

struct RsaPublicKey::Held {
    Key key;
};

RsaPublicKey::RsaPublicKey(std::unique_ptr<Held> held) : _held(std::move(held)) {}

RsaPublicKey::~RsaPublicKey() = default;

std::unique_ptr<RsaPublicKey> RsaPublicKey::initWithDER(std::span<const std::uint8_t> der) {
    Key key = keyFrom(der, [](auto** at, long size) { return d2i_PUBKEY(nullptr, at, size); });
    if (key == nullptr)
        key =
            keyFrom(der, [](auto** at, long size) { return d2i_PublicKey(EVP_PKEY_RSA, nullptr, at, size); });
    if (key == nullptr) return nullptr;
    return std::unique_ptr<RsaPublicKey>(new RsaPublicKey(std::make_unique<Held>(Held{std::move(key)})));
}

bool RsaPublicKey::verifyPKCS1SHA1(const Sha1Digest& digest, std::span<const std::uint8_t> signature) const {
    const KeyContext context(EVP_PKEY_CTX_new(_held->key.get(), nullptr));
    const bool valid =
        context != nullptr && EVP_PKEY_verify_init(context.get()) == 1 &&
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) == 1 &&
        EVP_PKEY_CTX_set_signature_md(context.get(), EVP_sha1()) == 1 &&
        EVP_PKEY_verify(context.get(), signature.data(), signature.size(), digest.data(), digest.size()) == 1;
    ERR_clear_error();
    return valid;
}

}  // namespace quorvane::platform
