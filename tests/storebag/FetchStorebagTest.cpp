#include "storebag/FetchStorebag.h"

#include "platform/base/FreedMemory.h"
#include "platform/value/Bytes.h"
#include "tests/storebag/StorebagFixture.h"

namespace quorvane {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::StartsWith;

const std::string kMonday = "Mon, 03 Nov 2025 10:00:00 GMT";
const std::string kFriday = "Fri, 07 Nov 2025 10:00:00 GMT";
const std::string kParseError = "<3>fetchStorebagWithName: propertyListWithData error ";
const std::string kMissing = "<3>fetchStorebagWithName: Signature is missing";

struct Fetched {
    std::optional<Dictionary> bag;
    std::int32_t maxAge = -1;
    bool notModified = false;
    std::optional<std::string> lastModified;
    FetchAttempt attempt;
};

Fetched fetch(const std::optional<std::string>& name = "stremcore",
              std::optional<std::string> lastModified = std::nullopt) {
    Fetched fetched;
    fetched.lastModified = std::move(lastModified);
    fetched.bag = fetchStorebagWithName(name, fetched.maxAge, fetched.notModified, &fetched.lastModified,
                                        &fetched.attempt);
    return fetched;
}

class FetchStorebagTest : public StorebagFixture {
  protected:
    std::string urlLine() const {
        return "<7>fetchStorebagWithName: Storebag Server URL: " + _server.url("/bags/stremcore?version=7.1");
    }

    static std::string xml(const Value& value) { return text(*platform::xmlPropertyList(value)); }

    std::string signedBytes(std::string_view bytes) const {
        return text(*tools::signStorebagBytes(platform::bytesOf(bytes), *_key));
    }

    Dictionary envelopeOf(const Dictionary& bag) const {
        return *platform::parsePropertyList(*tools::signStorebag(bag, *_key)).value().dictionary();
    }

    /// The good envelope with one entry changed, or taken away by an absent text.
    std::string changedEnvelope(const std::string& entry, const std::optional<Value>& value) const {
        Dictionary entries = envelopeOf(_bag);
        if (value)
            entries.set(entry, *value);
        else
            entries.remove(entry);
        return xml(entries);
    }

    const Dictionary _bag{{"version", "12"},
                          {"release", Dictionary{{"ossel", Dictionary{{"active", false}}}}}};
};

TEST_F(FetchStorebagTest, AServerWithoutASchemeIsAnErrorAndWithoutASettingTheBuildDecides) {
    write("etc/quorvane/defaults/com.velmora.quorvane.toml",
          "quorvane_storebag_url = \"127.0.0.1:1/bags\"\n");
    EXPECT_FALSE(fetch().bag);
    EXPECT_EQ(logged("<3>fetchStorebagWithName: 'quorvane_storebag_url' holds no URL with a scheme"), 1u);
    EXPECT_EQ(logged("sendSynchronousRequest error the URL has no scheme"), 1u);

    std::filesystem::remove(_root / "etc/quorvane/defaults/com.velmora.quorvane.toml");
    // Nothing is sent to the server.
    ::setenv("https_proxy", "http://127.0.0.1:1", 1);
    for (const char* exceptions : {"no_proxy", "NO_PROXY"}) ::unsetenv(exceptions);
    for (const auto& [facts, path] :
         {std::pair("", QUORVANE_STOREBAG_HOST "/bags"),
          {"ReleaseType = \"Internal\"\n", QUORVANE_INTERNAL_STOREBAG_HOST "/storebags"}}) {
        write("etc/quorvane/device.toml", facts);
        platform::settleAnewForTest();
        forgetLines();
        fetch("tunewave");
        EXPECT_EQ(logLines().front(),
                  fmt::format(
                      "<7>fetchStorebagWithName: Storebag Server URL: https://{}/tamsel/tunewave?version=7.1",
                      path));
    }
    ::unsetenv("https_proxy");
}

TEST_F(FetchStorebagTest, AVerifiedBagComesWithItsAgeAndDateWhateverTheStatus) {
    answer(signedBag(_bag), {{"Cache-Control", "public, max-age=600"}, {"Last-Modified", kMonday}});
    const Fetched fetched = fetch();
    EXPECT_EQ(fetched.bag, _bag);
    EXPECT_EQ(fetched.maxAge, 600);
    EXPECT_FALSE(fetched.notModified);
    EXPECT_EQ(fetched.lastModified, kMonday);
    EXPECT_THAT(
        logLines(),
        ElementsAre(urlLine(), "<7>fetchStorebagWithName: New 'Last-Modified: " + kMonday + "' received"));

    for (const int status : {200, 404, 500}) {
        answer(signedBag(_bag), {{"Last-Modified", kFriday}}, status);
        const Fetched changed = fetch("stremcore", kMonday);
        EXPECT_EQ(changed.bag, _bag) << status;
        EXPECT_FALSE(changed.notModified);
        EXPECT_EQ(changed.lastModified, kFriday);
    }
}

TEST_F(FetchStorebagTest, TheRequestNamesBagAndVersion) {
    fetch("pelmark");
    fetch(std::nullopt);
    for (const char* info : {"<plist><array/></plist>", "<plist><dict>",
                             "<plist><dict><key>CFBundleVersion</key><integer>8</integer></dict></plist>"}) {
        write(kInfo, info);
        fetch("pelmark");
    }
    EXPECT_EQ(logged("<3>bundleVersion: " + (_root / kInfo).string() + ": "), 1u) << "the malformed one";
    std::filesystem::remove(_root / kInfo);
    fetch("pelmark");
    installBundleVersion("8 b\r\nX-Forged: 1");
    fetch("pelmark");

    const auto requests = _server.requests();
    ASSERT_EQ(requests.size(), 7u);
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_EQ(requests[0].target, "/bags/pelmark?version=7.1");
    EXPECT_EQ(requests[0].header("If-Modified-Since"), "absent");
    EXPECT_EQ(requests[1].target, "/bags/(null)?version=7.1");
    for (const std::size_t versionless : {2, 3, 4, 5})
        EXPECT_EQ(requests[versionless].target, "/bags/pelmark?version=7.0");
    EXPECT_EQ(requests[6].target, "/bags/pelmark?version=8%20b%0D%0AX-Forged:%201");
    EXPECT_EQ(requests[6].header("X-Forged"), "absent");
}

TEST_F(FetchStorebagTest, AnUnchangedBagIsReportedAsSuch) {
    answer("", {{"Cache-Control", "max-age=120"}, {"Last-Modified", kFriday}}, 304);
    const Fetched fetched = fetch("stremcore", kMonday);
    EXPECT_EQ(fetched.bag, std::nullopt);
    EXPECT_TRUE(fetched.notModified);
    EXPECT_EQ(fetched.maxAge, 120);
    EXPECT_EQ(fetched.lastModified, kMonday);
    EXPECT_EQ(_server.requests().front().header("If-Modified-Since"), kMonday);
    EXPECT_THAT(
        logLines(),
        ElementsAre(urlLine(),
                    "<7>fetchStorebagWithName: Adding 'Last-Modified: " + kMonday + "' to the header",
                    "<7>fetchStorebagWithName: storebag content has not changed. using its cached version"));
}

TEST_F(FetchStorebagTest, AnEmptyAnswerIsUnchangedOnlyWithBothDates) {
    answer("", {{"Last-Modified", kFriday}}, 304);
    const Fetched withoutCachedDate = fetch();
    EXPECT_FALSE(withoutCachedDate.notModified);
    EXPECT_EQ(withoutCachedDate.lastModified, kFriday);

    std::int32_t maxAge = 0;
    bool notModified = false;
    EXPECT_EQ(fetchStorebagWithName("stremcore", maxAge, notModified, nullptr), std::nullopt);
    EXPECT_FALSE(notModified);

    answer("", {}, 304);
    const Fetched withoutNewDate = fetch("stremcore", kMonday);
    EXPECT_FALSE(withoutNewDate.notModified);
    EXPECT_EQ(withoutNewDate.lastModified, kMonday);

    const auto parseError = StartsWith(kParseError);
    EXPECT_THAT(lines(), ElementsAre(parseError, kMissing, parseError, kMissing, parseError, kMissing));
}

TEST_F(FetchStorebagTest, MaxAgeIsTheNumberAfterItsName) {
    const std::vector<std::pair<std::string, std::int32_t>> forms{
        {"public, max-age=600", 600},
        {"max-age=3600, public", 3600},
        {"max-age 60", 60},
        {"max-age=5 max-age=7", 5},
        {"max-age=abc", 0},
        {"max-age= 600", 0},
        {"max-age=99999999999999999999", 2147483647},
        {"max-age=3000000000", 2147483647},
        {"public, max-age", 86400},
        {"Max-Age=600", 86400},
        {"public,max-age=600", 86400},
    };
    EXPECT_EQ(fetch().maxAge, 86400);
    for (const auto& [header, seconds] : forms) {
        answer("", {{"Cache-Control", header}});
        EXPECT_EQ(fetch().maxAge, seconds) << header;
    }
}

TEST_F(FetchStorebagTest, WhatIsNotSignedOrCannotBeReadIsNotTaken) {
    const auto stranger = tools::SigningKey::generate();
    const Value otherBytes = *envelopeOf({{"version", "13"}}).find("bag");
    const std::string unverified = "<3>fetchStorebagWithName: Signature can not be verified, 0x";
    const struct {
        std::string body;
        std::vector<std::string> lines;
    } cases[] = {
        {"<html>no property list</html>", {kParseError, kMissing}},
        {changedEnvelope("signature", std::nullopt), {kMissing}},
        {changedEnvelope("signature", 7), {kMissing}},
        {xml(Array{"signature"}), {kMissing}},
        {changedEnvelope("bag", otherBytes), {unverified}},
        {changedEnvelope("bag", ""), {unverified}},
        {changedEnvelope("signature", "AAAA"), {unverified}},
        {text(*tools::signStorebag(_bag, *stranger)), {unverified}},
        {changedEnvelope("signature", "A"), {}},
        {changedEnvelope("bag", "A"), {}},
        {changedEnvelope("bag", std::nullopt), {}},
        {signedBytes("<plist><dict><key>version</key>"), {}},
        {signedBytes(""), {}},
        {signedBytes(xml(Array{1, 2})), {}},
    };
    for (const auto& [body, expected] : cases) {
        forgetLines();
        answer(body);
        const Fetched fetched = fetch();
        EXPECT_EQ(fetched.bag, std::nullopt) << body;
        EXPECT_NE(fetched.attempt.reason, "") << body;
        const auto logged = lines();
        ASSERT_EQ(logged.size(), expected.size()) << body;
        for (std::size_t i = 0; i < logged.size(); ++i) EXPECT_THAT(logged[i], StartsWith(expected[i]));
    }
}

TEST_F(FetchStorebagTest, TheMemoryOfALargeAnswerIsGivenBack) {
    int told = 0;
    platform::setMemoryListener([&told] { ++told; });
    answer(signedBag(_bag));
    EXPECT_TRUE(fetch().bag);
    EXPECT_EQ(told, 0);
    answer("<plist>" + std::string(1u << 20, ' '));
    EXPECT_FALSE(fetch().bag);
    EXPECT_EQ(told, 1);
    platform::setMemoryListener(nullptr);
}

TEST_F(FetchStorebagTest, TheKeyIsReadAtEveryVerification) {
    answer(signedBag(_bag));
    EXPECT_EQ(fetch().bag, _bag);
    EXPECT_EQ(fetch().attempt.outcome, FetchAttempt::Outcome::Received);
    write(kPublicKey, "no key");
    EXPECT_THAT(fetch().attempt.reason, EndsWith("is no RSA key in DER"));
    std::filesystem::remove(_root / kPublicKey);
    EXPECT_THAT(fetch().attempt.reason, EndsWith("is missing"));
    EXPECT_THAT(lines(), IsEmpty());

    // While keys change, damaged and foreign ones do not keep the right one from its work.
    const std::string folder = std::filesystem::path(kPublicKey).replace_extension(".d").string();
    write(kPublicKey, text(tools::SigningKey::generate()->publicDER()));
    write(folder + "/1.der", "no key");
    write(folder + "/2.pem", text(_key->publicDER()));
    EXPECT_THAT(fetch().attempt.reason, ::testing::HasSubstr("was not made with the key"));
    write(folder + "/2.der", text(_key->publicDER()));
    EXPECT_EQ(fetch().bag, _bag);
    std::filesystem::remove(_root / kPublicKey);
    EXPECT_EQ(fetch().bag, _bag);
    answer("", {{"Location", "https://elsewhere.invalid/"}}, 302);
    EXPECT_EQ(fetch().attempt.reason,
              "the server redirects to https://elsewhere.invalid/, which is not followed");
    EXPECT_EQ(fetch().attempt.httpStatus, 302);
}

TEST_F(FetchStorebagTest, ABagThatIsTooLargeIsATransportErrorAndConfluxaHasOneToFallBackOn) {
    const auto error =
        StartsWith("<6>fetchStorebagWithName: Error resolving with lookup server " + _server.url("/bags/"));
    answerTooMuch();
    const Fetched fetched = fetch("stremcore", kMonday);
    EXPECT_EQ(fetched.bag, std::nullopt);
    EXPECT_EQ(fetched.maxAge, -1);
    EXPECT_FALSE(fetched.notModified);
    EXPECT_EQ(fetched.lastModified, kMonday);
    EXPECT_THAT(lines(), ElementsAre(error));
    EXPECT_EQ(logged("/bags/stremcore?version=7.1, sendSynchronousRequest error "), 1u);

    forgetLines();
    const Fetched fallback = fetch("confluxa");
    const Dictionary section{{"ossel", Dictionary{{"active", true}}}};
    EXPECT_EQ(fallback.bag, (Dictionary{{"velmora_internal", section},
                                        {"development", section},
                                        {"release", section},
                                        {"version", "1.0.0-Confluxa-Fallback"},
                                        {"refresh_cycle", 3600}}));
    EXPECT_EQ(fallback.maxAge, -1);
    EXPECT_THAT(lines(), ElementsAre(error, "<6>fetchStorebagWithName: Loading default storebag 'confluxa'"));

    answer("reached");
    EXPECT_EQ(fetch("confluxa").bag, std::nullopt);
}

}  // namespace
}  // namespace quorvane
