#include "platform/crypto/Crypto.h"
#include "platform/crypto/RandomDraw.h"

#include "platform/value/Bytes.h"

#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <thread>

namespace quorvane::platform {
namespace {

TEST(CryptoTest, DigestsAreThoseOfTheStandardOnEveryThread) {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([] {
            for (int round = 0; round < 100; ++round) {
                EXPECT_EQ(hexOf(sha1(bytesOf("abc"))), "a9993e364706816aba3e25717850c26c9cd0d89d");
                EXPECT_EQ(hexOf(sha1({})), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
                EXPECT_EQ(hexOf(sha256(bytesOf("abc"))),
                          "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
                EXPECT_EQ(hexOf(sha256({})),
                          "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
            }
        });
}

TEST(CryptoTest, Base64OfEveryLengthIsReadBackAndWhatIsNoneRefused) {
    for (const auto& [plain, coded] :
         std::vector<std::pair<std::string, std::string>>{{"", ""},
                                                          {"f", "Zg=="},
                                                          {"fo", "Zm8="},
                                                          {"foo", "Zm9v"},
                                                          {"foobar", "Zm9vYmFy"},
                                                          {"\xff\xfe\xfb", "//77"},
                                                          {"\xfb\xef\xbe", "++++"}}) {
        EXPECT_EQ(base64Encode(bytesOf(plain)), coded);
        EXPECT_EQ(base64Decode(coded), Data(plain.begin(), plain.end())) << coded;
    }
    const Data large(10'000'000, 'x');
    EXPECT_TRUE(base64Decode(base64Encode(large)) == large);

    const std::string_view foreign = "fooba";
    EXPECT_EQ(base64Decode(" Zm\r\n9v-_Ym*E=\xff\n"), Data(foreign.begin(), foreign.end()));
    for (const char* bad : {"Z", "Zg", "Zg=", "Zg===", "Z===", "=", "====", "Zg==Zg==", "Zm9v=", "=Zm8"})
        EXPECT_EQ(base64Decode(bad), std::nullopt) << bad;
}

class RsaTest : public testing::Test {
  protected:
    ~RsaTest() override { EVP_PKEY_free(_key); }

    /// The public key in the form that the function writes.
    template <typename Write>
    Data der(Write&& write) const {
        Data bytes(static_cast<std::size_t>(write(_key, nullptr)));
        unsigned char* at = bytes.data();
        write(_key, &at);
        return bytes;
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
    const auto key = RsaPublicKey::initWithDER(der(i2d_PUBKEY));
    ASSERT_NE(key, nullptr);
    const Data good = signature(message);
    EXPECT_TRUE(key->verifyPKCS1SHA1(digest, good));
    EXPECT_TRUE(RsaPublicKey::initWithDER(der(i2d_PublicKey))->verifyPKCS1SHA1(digest, good)) << "PKCS#1";

    Data flipped = good;
    flipped[100] ^= 1;
    EXPECT_FALSE(key->verifyPKCS1SHA1(sha1(bytesOf("another bag")), good));
    for (const Data& bad : {flipped, Data(good.begin(), good.end() - 1), Data(), Data(256, 0xff),
                            signature(message, EVP_sha256())})
        EXPECT_FALSE(key->verifyPKCS1SHA1(digest, bad)) << hexOf(bad);
    EXPECT_TRUE(key->verifyPKCS1SHA1(digest, good)) << "a bad signature leaves nothing behind";
}

TEST_F(RsaTest, BytesThatAreNoRsaKeyGiveNone) {
    Data longer = der(i2d_PUBKEY);
    longer.push_back(0);
    Data shorter = der(i2d_PUBKEY);
    shorter.pop_back();
    EVP_PKEY_free(_key);
    _key = EVP_EC_gen("P-256");
    const Data otherKind = der(i2d_PUBKEY);
    const std::string_view text = "-----BEGIN PUBLIC KEY-----";
    for (const Data& bad : {longer, shorter, otherKind, Data(), Data(text.begin(), text.end())})
        EXPECT_EQ(RsaPublicKey::initWithDER(bad), nullptr) << hexOf(bad);
}

TEST(RandomDrawTest, DrawsAreSpreadEvenlyFromTheFirstOn) {
    constexpr int kDraws = 10'000;
    EXPECT_NE(randomDraw(), 0) << "what the unseeded generator begins with";
    double sum = 0;
    for (int draw = 0; draw < kDraws; ++draw) {
        const double number = randomDraw();
        ASSERT_GE(number, 0);
        ASSERT_LT(number, 1);
        sum += number;
    }
    EXPECT_NEAR(sum / kDraws, 0.5, 0.03) << "ten standard deviations";
}

}  // namespace
}  // namespace quorvane::platform
