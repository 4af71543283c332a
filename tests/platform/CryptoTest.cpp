#include "platform/Crypto.h"

#include "platform/Uuid.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <fmt/format.h>

#include <iterator>
#include <set>
#include <thread>

namespace quorvane::platform {
namespace {

std::span<const std::uint8_t> bytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::string hex(std::span<const std::uint8_t> bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) fmt::format_to(std::back_inserter(text), "{:02x}", byte);
    return text;
}

TEST(CryptoTest, DigestsAreThoseOfTheStandard) {
    EXPECT_EQ(hex(sha1(bytesOf("abc"))), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(hex(sha1({})), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    EXPECT_EQ(hex(sha256(bytesOf("abc"))),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(hex(sha256({})), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(CryptoTest, ThreadsDigestSideBySide) {
    const Sha256Digest expected = sha256(bytesOf("event"));
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&expected] {
            for (int round = 0; round < 500; ++round) {
                EXPECT_EQ(sha256(bytesOf("event")), expected);
                EXPECT_NE(hex(sha1(bytesOf("event"))), "");
            }
        });
    for (std::thread& thread : threads) thread.join();
}

TEST(CryptoTest, Base64IsThatOfRfc4648) {
    const std::vector<std::pair<std::string, std::string>> vectors{{"", ""},
                                                                   {"f", "Zg=="},
                                                                   {"fo", "Zm8="},
                                                                   {"foo", "Zm9v"},
                                                                   {"foob", "Zm9vYg=="},
                                                                   {"fooba", "Zm9vYmE="},
                                                                   {"foobar", "Zm9vYmFy"},
                                                                   {"\xff\xfe\xfb", "//77"},
                                                                   {"\xfb\xef\xbe", "++++"}};
    for (const auto& [plain, coded] : vectors) {
        EXPECT_EQ(base64Encode(bytesOf(plain)), coded);
        const std::optional<Data> decoded = base64Decode(coded);
        ASSERT_TRUE(decoded) << coded;
        EXPECT_EQ(std::string(decoded->begin(), decoded->end()), plain);
    }
    const std::string large(10'000'000, 'x');
    const std::optional<Data> decoded = base64Decode(base64Encode(bytesOf(large)));
    ASSERT_TRUE(decoded);
    EXPECT_TRUE(std::equal(decoded->begin(), decoded->end(), large.begin(), large.end()));
}

TEST(CryptoTest, Base64IgnoresForeignCharactersAndRefusesWhatIsNone) {
    const std::optional<Data> decoded = base64Decode(" Zm\r\n9v-_Ym*E=\xff\n");
    ASSERT_TRUE(decoded);
    EXPECT_EQ(std::string(decoded->begin(), decoded->end()), "fooba");
    for (const char* bad : {"Z", "Zg", "Zg=", "Zg===", "Z===", "=", "====", "Zg==Zg==", "Zm9v=", "=Zm8"})
        EXPECT_FALSE(base64Decode(bad)) << bad;
}

class RsaTest : public testing::Test {
  protected:
    ~RsaTest() override { EVP_PKEY_free(_key); }

    Data publicKey() const {
        Data der(static_cast<std::size_t>(i2d_PUBKEY(_key, nullptr)));
        unsigned char* at = der.data();
        i2d_PUBKEY(_key, &at);
        return der;
    }

    Data bareKey() const {
        Data der(static_cast<std::size_t>(i2d_PublicKey(_key, nullptr)));
        unsigned char* at = der.data();
        i2d_PublicKey(_key, &at);
        return der;
    }

    Data signature(std::span<const std::uint8_t> message, const EVP_MD* digest = EVP_sha1()) const {
        EVP_MD_CTX* context = EVP_MD_CTX_new();
        EXPECT_EQ(EVP_DigestSignInit(context, nullptr, digest, nullptr, _key), 1);
        std::size_t size = 512;
        Data signature(size);
        EXPECT_EQ(EVP_DigestSign(context, signature.data(), &size, message.data(), message.size()), 1);
        EVP_MD_CTX_free(context);
        signature.resize(size);
        return signature;
    }

    EVP_PKEY* _key = EVP_RSA_gen(2048);
};

TEST_F(RsaTest, OnlyTheSignatureOfThisDigestUnderThisKeyIsValid) {
    const auto message = bytesOf("the bag");
    const Sha1Digest digest = sha1(message);
    const auto key = RsaPublicKey::initWithDER(publicKey());
    ASSERT_NE(key, nullptr);
    const Data good = signature(message);
    EXPECT_TRUE(key->verifyPKCS1SHA1(digest, good));
    EXPECT_TRUE(RsaPublicKey::initWithDER(bareKey())->verifyPKCS1SHA1(digest, good)) << "PKCS#1 form";

    Data flipped = good;
    flipped[100] ^= 1;
    EXPECT_FALSE(key->verifyPKCS1SHA1(digest, flipped));
    EXPECT_FALSE(key->verifyPKCS1SHA1(sha1(bytesOf("another bag")), good));
    EXPECT_FALSE(key->verifyPKCS1SHA1(digest, std::span(good).first(255)));
    EXPECT_FALSE(key->verifyPKCS1SHA1(digest, {}));
    EXPECT_FALSE(key->verifyPKCS1SHA1(digest, Data(256, 0xff)));
    EXPECT_FALSE(key->verifyPKCS1SHA1(digest, signature(message, EVP_sha256())));
    EXPECT_TRUE(key->verifyPKCS1SHA1(digest, good)) << "a bad signature leaves nothing behind";
}

TEST_F(RsaTest, BytesThatAreNoRsaKeyGiveNone) {
    Data longer = publicKey();
    longer.push_back(0);
    Data shorter = publicKey();
    shorter.pop_back();
    EXPECT_EQ(RsaPublicKey::initWithDER(longer), nullptr);
    EXPECT_EQ(RsaPublicKey::initWithDER(shorter), nullptr);
    EXPECT_EQ(RsaPublicKey::initWithDER({}), nullptr);
    EXPECT_EQ(RsaPublicKey::initWithDER(bytesOf("-----BEGIN PUBLIC KEY-----")), nullptr);
    EVP_PKEY_free(_key);
    _key = EVP_EC_gen("P-256");
    EXPECT_EQ(RsaPublicKey::initWithDER(publicKey()), nullptr) << "a key of another kind";
}

TEST(UuidTest, UuidsAreRandomAndInCanonicalForm) {
    std::set<std::string> made;
    for (int i = 0; i < 200; ++i) made.insert(randomUuidText());
    EXPECT_EQ(made.size(), 200u);
    for (const std::string& text : made)
        EXPECT_THAT(text, testing::MatchesRegex("[0-9A-F]+-[0-9A-F]+-4[0-9A-F]+-[89AB][0-9A-F]+-[0-9A-F]+"));
    EXPECT_EQ(made.begin()->size(), 36u);
    EXPECT_NE(randomUuidBytes(), randomUuidBytes());
}

}  // namespace
}  // namespace quorvane::platform
