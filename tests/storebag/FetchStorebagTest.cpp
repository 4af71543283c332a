#include "storebag/FetchStorebag.h"

#include "platform/PropertyList.h"
#include "tests/storebag/StorebagFixture.h"
#include "tools/storebag/SignStorebag.h"

#include <utility>

namespace quorvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

const std::string kMonday = "Mon, 03 Nov 2025 10:00:00 GMT";
const std::string kFriday = "Fri, 07 Nov 2025 10:00:00 GMT";
const std::string kMissing = "<3>fetchStorebagWithName: Signature is missing";

struct Fetched {
    std::optional<Dictionary> bag;
    std::int32_t maxAge = -1;
    bool notModified = false;
    std::optional<std::string> lastModified;
};

class FetchStorebagTest : public StorebagFixture {
  protected:
    static Fetched fetch(const std::optional<std::string>& name = "stremcore",
                         std::optional<std::string> lastModified = std::nullopt) {
        Fetched fetched;
        fetched.lastModified = std::move(lastModified);
        fetched.bag = fetchStorebagWithName(name, fetched.maxAge, fetched.notModified, &fetched.lastModified);
        return fetched;
    }

    static std::string urlLine(const std::string& target) {
        return "<7>fetchStorebagWithName: Storebag Server URL: " + server().url(target);
    }

    static std::string signedBytes(std::string_view bytes) {
        const auto signedBag = tools::signStorebagBytes(
            {reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()}, key());
        return {signedBag->begin(), signedBag->end()};
    }

    /// The good envelope with one entry changed, or taken away by an absent text.
    static std::string changedEnvelope(const std::string& entry, const std::optional<std::string>& text) {
        Dictionary entries = entriesOf(signedBag(_bag));
        if (text)
            entries.set(entry, *text);
        else
            entries.remove(entry);
        return envelope(entries);
    }

    inline static const Dictionary _bag{{"version", "12"},
                                        {"release", Dictionary{{"ossel", Dictionary{{"active", false}}}}}};
};

TEST_F(FetchStorebagTest, AVerifiedBagComesWithItsAgeAndDate) {
    answer(signedBag(_bag), {{"Cache-Control", "public, max-age=600"}, {"Last-Modified", kMonday}});
    const Fetched fetched = fetch();
    EXPECT_EQ(fetched.bag, _bag);
    EXPECT_EQ(fetched.maxAge, 600);
    EXPECT_FALSE(fetched.notModified);
    EXPECT_EQ(fetched.lastModified, kMonday);
    EXPECT_THAT(allLines(),
                ElementsAre(urlLine("/bags/stremcore?version=7.1"),
                            "<7>fetchStorebagWithName: New 'Last-Modified: " + kMonday + "' received"));
}

TEST_F(FetchStorebagTest, TheRequestNamesBagAndVersion) {
    fetch("pelmark");
    fetch(std::nullopt);
    removeFile("usr/share/quorvane/framework/Info.plist");
    fetch("pelmark");
    installBundleVersion("8 b\r\nX-Forged: 1");
    fetch("pelmark");

    const auto requests = server().requests();
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_EQ(requests[0].target, "/bags/pelmark?version=7.1");
    EXPECT_EQ(requests[0].header("If-Modified-Since"), "absent");
    EXPECT_EQ(requests[1].target, "/bags/(null)?version=7.1");
    EXPECT_EQ(requests[2].target, "/bags/pelmark?version=7.0");
    EXPECT_EQ(requests[3].target, "/bags/pelmark?version=8%20b%0D%0AX-Forged:%201");
    EXPECT_EQ(requests[3].header("X-Forged"), "absent");
}

TEST_F(FetchStorebagTest, AnUnchangedBagIsReportedAsSuch) {
    answer("", {{"Cache-Control", "max-age=120"}, {"Last-Modified", kFriday}}, 304);
    const Fetched fetched = fetch("stremcore", kMonday);
    EXPECT_EQ(fetched.bag, std::nullopt);
    EXPECT_TRUE(fetched.notModified);
    EXPECT_EQ(fetched.maxAge, 120);
    EXPECT_EQ(fetched.lastModified, kMonday);
    EXPECT_EQ(server().requests().front().header("If-Modified-Since"), kMonday);
    EXPECT_THAT(
        allLines(),
        ElementsAre(urlLine("/bags/stremcore?version=7.1"),
                    "<7>fetchStorebagWithName: Adding 'Last-Modified: " + kMonday + "' to the header",
                    "<7>fetchStorebagWithName: storebag content has not changed. using its cached version"));
}

TEST_F(FetchStorebagTest, AChangedBagReplacesTheDate) {
    answer(signedBag(_bag), {{"Last-Modified", kFriday}});
    const Fetched fetched = fetch("stremcore", kMonday);
    EXPECT_EQ(fetched.bag, _bag);
    EXPECT_FALSE(fetched.notModified);
    EXPECT_EQ(fetched.lastModified, kFriday);
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

    const auto parseError = StartsWith("<3>fetchStorebagWithName: propertyListWithData error ");
    EXPECT_THAT(lines(), ElementsAre(parseError, kMissing, parseError, kMissing, parseError, kMissing));
}

TEST_F(FetchStorebagTest, TheStatusCountsForNothing) {
    for (const int status : {404, 500}) {
        answer(signedBag(_bag), {}, status);
        EXPECT_EQ(fetch().bag, _bag) << status;
    }
}

TEST_F(FetchStorebagTest, MaxAgeIsTheNumberAfterItsName) {
    const std::vector<std::pair<std::string, std::int32_t>> forms{
        {"max-age=600", 600},
        {"public, max-age=600", 600},
        {"max-age=3600, public", 3600},
        {"max-age 60", 60},
        {"max-age=5 max-age=7", 5},
        {"max-age=0", 0},
        {"max-age=abc", 0},
        {"max-age=", 0},
        {"max-age= 600", 0},
        {"max-age=99999999999999999999", 2147483647},
        {"max-age=3000000000", 2147483647},
        {"public, max-age", 86400},
        {"s-max-age=600", 86400},
        {"Max-Age=600", 86400},
        {"public,max-age=600", 86400},
        {"no-cache", 86400},
    };
    for (const auto& [header, seconds] : forms) {
        answer("", {{"Cache-Control", header}});
        EXPECT_EQ(fetch().maxAge, seconds) << header;
    }
    answer("");
    EXPECT_EQ(fetch().maxAge, 86400);
}

TEST_F(FetchStorebagTest, Base64MayBeBrokenIntoLines) {
    Dictionary entries = entriesOf(signedBag(_bag));
    for (const char* entry : {"bag", "signature"}) {
        std::string broken;
        for (const char c : *entries.string(entry)) {
            if (broken.size() % 40 == 0) broken += "\n\t";
            broken += c;
        }
        entries.set(entry, broken + "\n");
    }
    answer(envelope(entries));
    EXPECT_EQ(fetch().bag, _bag);
}

TEST_F(FetchStorebagTest, WithoutASignatureNothingIsTaken) {
    answer("<html>no property list</html>");
    EXPECT_EQ(fetch().bag, std::nullopt);
    EXPECT_THAT(lines(),
                ElementsAre(StartsWith("<3>fetchStorebagWithName: propertyListWithData error "), kMissing));

    Dictionary signedByNumber = entriesOf(signedBag(_bag));
    signedByNumber.set("signature", 7);
    const Data list = *platform::xmlPropertyList(Array{"signature"});
    for (const std::string& body : {changedEnvelope("signature", std::nullopt), envelope(signedByNumber),
                                    std::string(list.begin(), list.end())}) {
        forgetLines();
        answer(body);
        EXPECT_EQ(fetch().bag, std::nullopt);
        EXPECT_THAT(lines(), ElementsAre(kMissing));
    }
}

TEST_F(FetchStorebagTest, ASignatureOverOtherBytesDoesNotVerify) {
    const std::string other = *entriesOf(signedBag({{"version", "13"}})).string("bag");
    const auto stranger = tools::SigningKey::generate();
    const Data byStranger = *tools::signStorebag(_bag, *stranger);
    for (const std::string& body :
         {changedEnvelope("bag", other), changedEnvelope("bag", ""), changedEnvelope("signature", "AAAA"),
          std::string(byStranger.begin(), byStranger.end())}) {
        forgetLines();
        answer(body);
        EXPECT_EQ(fetch().bag, std::nullopt);
        EXPECT_THAT(lines(),
                    ElementsAre(StartsWith("<3>fetchStorebagWithName: Signature can not be verified, 0x")));
    }
}

TEST_F(FetchStorebagTest, WhatCannotBeReadIsDroppedWithoutALine) {
    const Data list = *platform::xmlPropertyList(Array{1, 2});
    for (const std::string& body :
         {changedEnvelope("signature", "A"), changedEnvelope("bag", "A"),
          changedEnvelope("bag", std::nullopt), signedBytes("<plist><dict><key>version</key>"),
          signedBytes(""), signedBytes({reinterpret_cast<const char*>(list.data()), list.size()})}) {
        answer(body);
        EXPECT_EQ(fetch().bag, std::nullopt) << body;
    }
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(FetchStorebagTest, TheKeyIsReadAtEveryVerification) {
    answer(signedBag(_bag));
    EXPECT_EQ(fetch().bag, _bag);
    installPublicKey("no key");
    EXPECT_EQ(fetch().bag, std::nullopt);
    removeFile("usr/share/quorvane/framework/publicKey.der");
    EXPECT_EQ(fetch().bag, std::nullopt);
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(FetchStorebagTest, ABagThatIsTooLargeIsATransportError) {
    answerTooMuch();
    const Fetched fetched = fetch("stremcore", kMonday);
    EXPECT_EQ(fetched.bag, std::nullopt);
    EXPECT_EQ(fetched.maxAge, -1);
    EXPECT_FALSE(fetched.notModified);
    EXPECT_EQ(fetched.lastModified, kMonday);
    EXPECT_THAT(lines(),
                ElementsAre(StartsWith("<6>fetchStorebagWithName: Error resolving with lookup server " +
                                       server().url("/bags/stremcore?version=7.1") +
                                       ", sendSynchronousRequest error ")));
}

TEST_F(FetchStorebagTest, ConfluxaHasABagToFallBackOnWhenTheServerIsNotReached) {
    answerTooMuch();
    const Fetched fetched = fetch("confluxa");
    const Dictionary section{{"ossel", Dictionary{{"active", true}}}};
    EXPECT_EQ(fetched.bag, (Dictionary{{"velmora_internal", section},
                                       {"development", section},
                                       {"release", section},
                                       {"version", "1.0.0-Confluxa-Fallback"},
                                       {"refresh_cycle", 3600}}));
    EXPECT_EQ(fetched.maxAge, -1);
    EXPECT_THAT(lines(),
                ElementsAre(StartsWith("<6>fetchStorebagWithName: Error resolving with lookup server "),
                            "<6>fetchStorebagWithName: Loading default storebag 'confluxa'"));

    answer("reached");
    EXPECT_EQ(fetch("confluxa").bag, std::nullopt);
}

}  // namespace
}  // namespace quorvane
