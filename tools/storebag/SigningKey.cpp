#include "tools/storebag/SigningKey.h"

#include "platform/base/Owned.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <utility>

namespace quorvane::tools {

namespace {

using Key = platform::Owned<EVP_PKEY, EVP_PKEY_free>;
using Memory = platform::Owned<BIO, BIO_free>;
using DigestContext = platform::Owned<EVP_MD_CTX, EVP_MD_CTX_free>;

/// An encrypted key is refused rather than asked for on the terminal.
int noPassphrase(char*, int, int, void*) {
    return -1;
}

}  // namespace

struct SigningKey::Held {
    Key key;
};

SigningKey::SigningKey(std::unique_ptr<Held> held) : _held(std::move(held)) {}

SigningKey::~SigningKey() = default;

std::unique_ptr<SigningKey> SigningKey::generate(unsigned bits) {
    if (bits < kMinimumKeyBits || bits > kMaximumKeyBits) return nullptr;
    Key key(EVP_RSA_gen(bits));
    if (!key) return nullptr;
    return std::unique_ptr<SigningKey>(new SigningKey(std::make_unique<Held>(Held{std::move(key)})));
}

std::unique_ptr<SigningKey> SigningKey::initWithPEM(std::string_view pem) {
    const Memory text(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    Key key(PEM_read_bio_PrivateKey(text.get(), nullptr, noPassphrase, nullptr));
    if (!key || EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_RSA) return nullptr;
    return std::unique_ptr<SigningKey>(new SigningKey(std::make_unique<Held>(Held{std::move(key)})));
}

unsigned SigningKey::bits() const {
    return static_cast<unsigned>(EVP_PKEY_get_bits(_held->key.get()));
}

std::string SigningKey::privatePEM() const {
    const Memory text(BIO_new(BIO_s_mem()));
    if (PEM_write_bio_PKCS8PrivateKey(text.get(), _held->key.get(), nullptr, nullptr, 0, nullptr, nullptr) !=
        1)
        return {};
    char* start = nullptr;
    const long size = BIO_get_mem_data(text.get(), &start);
    return {start, static_cast<std::size_t>(size)};
}

Data SigningKey::publicDER() const {
    Data der(static_cast<std::size_t>(i2d_PUBKEY(_held->key.get(), nullptr)));
    unsigned char* at = der.data();
    i2d_PUBKEY(_held->key.get(), &at);
    return der;
}

std::optional<Data> SigningKey::signPKCS1SHA1(std::span<const std::uint8_t> bytes) const {
    const DigestContext context(EVP_MD_CTX_new());
    EVP_PKEY_CTX* padding = nullptr;
    std::size_t size = static_cast<std::size_t>(EVP_PKEY_get_size(_held->key.get()));
    Data signature(size);
    if (EVP_DigestSignInit(context.get(), &padding, EVP_sha1(), nullptr, _held->key.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(padding, RSA_PKCS1_PADDING) != 1 ||
        EVP_DigestSign(context.get(), signature.data(), &size, bytes.data(), bytes.size()) != 1)
        return std::nullopt;
    signature.resize(size);
    return signature;
}

}  // namespace quorvane::tools
