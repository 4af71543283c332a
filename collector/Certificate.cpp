#include "collector/Certificate.h"

#include "collector/StartError.h"
#include "platform/base/FileManager.h"
#include "platform/base/Owned.h"

#include <arpa/inet.h>
#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <array>
#include <cctype>

#include <fmt/format.h>

namespace quorvane::collector {

namespace {

using platform::Owned;

// A device's clock may be behind when it meets the collector for the first time.
constexpr long kBackdatedSeconds = 24L * 60 * 60;
constexpr long kValidSeconds = 365L * 24 * 60 * 60;
constexpr std::size_t kMaximumPemBytes = 1u << 20;

using Key = Owned<EVP_PKEY, EVP_PKEY_free>;
using X509Certificate = Owned<X509, X509_free>;
using Extension = Owned<X509_EXTENSION, X509_EXTENSION_free>;
using Bio = Owned<BIO, BIO_free_all>;

void require(bool done) {
    if (!done) throw StartError("cannot make a certificate");
}

bool isAddress(const std::string& name) {
    std::array<unsigned char, sizeof(in6_addr)> address{};
    return ::inet_pton(AF_INET, name.c_str(), address.data()) == 1 ||
           ::inet_pton(AF_INET6, name.c_str(), address.data()) == 1;
}

bool isHostName(const std::string& name) {
    const auto allowed = [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '-' || c == '.' || c == '*';
    };
    return !name.empty() && name.size() <= 253 && std::all_of(name.begin(), name.end(), allowed);
}

std::string alternativeNames(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        if (!isAddress(name) && !isHostName(name))
            throw StartError(fmt::format("\"{}\" is neither a host name nor an address", name));
        text += fmt::format("{}{}:{}", text.empty() ? "" : ",", isAddress(name) ? "IP" : "DNS", name);
    }
    return text;
}

void addExtension(X509& certificate, int kind, const std::string& text) {
    X509V3_CTX context;
    X509V3_set_ctx(&context, &certificate, &certificate, nullptr, nullptr, 0);
    const Extension extension(X509V3_EXT_conf_nid(nullptr, &context, kind, text.c_str()));
    require(extension && X509_add_ext(&certificate, extension.get(), -1) == 1);
}

void setSerialNumber(X509& certificate) {
    std::array<unsigned char, 16> random{};
    require(RAND_bytes(random.data(), static_cast<int>(random.size())) == 1);
    random[0] &= 0x7f;
    const Owned<BIGNUM, BN_free> number(BN_bin2bn(random.data(), static_cast<int>(random.size()), nullptr));
    require(number && BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(&certificate)) != nullptr);
}

void setSubject(X509& certificate, const char* commonName) {
    X509_NAME* subject = X509_get_subject_name(&certificate);
    require(X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC,
                                       reinterpret_cast<const unsigned char*>(commonName), -1, -1, 0) == 1);
    require(X509_set_issuer_name(&certificate, subject) == 1);
}

X509Certificate selfSigned(EVP_PKEY& key, const std::vector<std::string>& names) {
    X509Certificate certificate(X509_new());
    require(certificate && X509_set_version(certificate.get(), X509_VERSION_3) == 1);
    setSerialNumber(*certificate);
    setSubject(*certificate, "quorvane-collector");
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kBackdatedSeconds);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), kValidSeconds);
    require(X509_set_pubkey(certificate.get(), &key) == 1);
    addExtension(*certificate, NID_basic_constraints, "critical,CA:FALSE");
    // Tell one start's certificate from another's of the same name.
    addExtension(*certificate, NID_subject_key_identifier, "hash");
    addExtension(*certificate, NID_authority_key_identifier, "keyid:always");
    addExtension(*certificate, NID_ext_key_usage, "serverAuth");
    addExtension(*certificate, NID_subject_alt_name, alternativeNames(names));
    require(X509_sign(certificate.get(), &key, EVP_sha256()) > 0);
    return certificate;
}

template <typename Write>
std::string pem(Write write) {
    const Bio memory(BIO_new(BIO_s_mem()));
    require(memory && write(memory.get()) == 1);
    char* bytes = nullptr;
    const long size = BIO_get_mem_data(memory.get(), &bytes);
    return {bytes, static_cast<std::size_t>(size)};
}

std::string readText(const std::string& path) {
    const auto bytes = platform::readFile(path, kMaximumPemBytes);
    if (!bytes) throw StartError(fmt::format("cannot read {}", path));
    return {bytes->begin(), bytes->end()};
}

}  // namespace

Certificate makeCertificate(const std::vector<std::string>& names) {
    const Key key(EVP_EC_gen("P-256"));
    require(key != nullptr);
    const X509Certificate certificate = selfSigned(*key, names);
    return {.chain = pem([&](BIO* out) { return PEM_write_bio_X509(out, certificate.get()); }),
            .key = pem([&](BIO* out) {
                return PEM_write_bio_PrivateKey(out, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
            })};
}

Certificate readCertificate(const std::string& chainFile, const std::string& keyFile) {
    return {.chain = readText(chainFile), .key = readText(keyFile)};
}

}  // namespace quorvane::collector
