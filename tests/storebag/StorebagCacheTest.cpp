#include "storebag/StorebagCache.h"

#include "tests/storebag/StorebagFixture.h"

namespace quorvane {
namespace {

using std::chrono::hours;
using std::chrono::microseconds;
using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::int32_t kPelmark = 5;
constexpr std::int32_t kStremcore = 6;
constexpr std::int32_t kConfluxa = 7;
constexpr std::int32_t kSharesConfluxa = 11;

class StorebagCacheTest : public StorebagFixture {
  protected:
    std::shared_ptr<const Dictionary> ask(std::int32_t clientType) {
        return _cache.storebagForSession(clientType);
    }

    static Dictionary section(int number) { return {{"ossel", Dictionary{{"number", number}}}}; }

    /// Answers with a bag of that version, whose section holds the number too.
    void answerBag(int version, const std::string& maxAge, const std::string& lastModified = "") {
        std::vector<std::pair<std::string, std::string>> headers{{"Cache-Control", "max-age=" + maxAge}};
        if (!lastModified.empty()) headers.emplace_back("Last-Modified", lastModified);
        answer(signedBag({{"version", fmt::format("v{}", version)}, {"release", section(version)}}), headers);
    }

    void expectServed(std::int32_t clientType, int version) {
        const auto served = ask(clientType);
        ASSERT_NE(served, nullptr);
        EXPECT_EQ(*served, section(version));
        EXPECT_EQ(_cache.storebagVersion(clientType), fmt::format("v{}", version));
    }

    StorebagCache _cache;
};

TEST_F(StorebagCacheTest, AFreshSectionIsServedFromMemory) {
    answerBag(1, "600");
    expectServed(kStremcore, 1);
    EXPECT_EQ(logLines().front(), "<7>fetchAndCacheStorebag: Fetching storebag for client type 6");
    EXPECT_EQ(logLines().back(), "<7>fetchAndCacheStorebag: Storebag max age: 600 seconds");

    answerBag(2, "600");
    advanceClock(seconds(599));
    forgetLines();
    const auto first = ask(kStremcore);
    EXPECT_THAT(logLines(), ElementsAre("<7>storebagForSession: Cached storebag found for client type 6"));
    advanceClock(seconds(1) - microseconds(1));
    expectServed(kStremcore, 1);
    EXPECT_EQ(_server.requestCount(), 1u);

    advanceClock(microseconds(1));
    expectServed(kStremcore, 2);
    EXPECT_EQ(_server.requestCount(), 2u);
    EXPECT_EQ(*first, section(1)) << "a section outlives its replacement";
}

TEST_F(StorebagCacheTest, TypesOfOneBagShareTheDownload) {
    answerBag(1, "600");
    EXPECT_EQ(ask(kConfluxa), ask(kSharesConfluxa));
    EXPECT_EQ(_cache.storebagVersion(kSharesConfluxa), "v1");
    EXPECT_EQ(_server.requestCount(), 1u);
    EXPECT_EQ(_cache.storebagVersion(kPelmark), std::nullopt);
    expectServed(kPelmark, 1);
    EXPECT_EQ(_server.requestCount(), 2u);
}

TEST_F(StorebagCacheTest, FailedAttemptsAreSpaced) {
    answer("", {{"Cache-Control", "max-age=86400"}});
    EXPECT_EQ(ask(kStremcore), nullptr);
    EXPECT_EQ(_cache.storebagVersion(kStremcore), std::nullopt);
    EXPECT_EQ(lines().back(), "<3>fetchAndCacheStorebag: Unable to fetch storebag for client type 6");

    answerBag(1, "600");
    for (const auto& step : {microseconds(0), microseconds(seconds(899)), microseconds(999'999)}) {
        advanceClock(step);
        forgetLines();
        EXPECT_EQ(ask(kStremcore), nullptr);
        EXPECT_THAT(
            lines(),
            ElementsAre(
                "<6>storebagForSession: Not fetching storebag for client type 6 - must wait 900 seconds between attempts"));
    }
    EXPECT_EQ(_server.requestCount(), 1u);

    advanceClock(microseconds(1));
    expectServed(kStremcore, 1);
    EXPECT_EQ(_server.requestCount(), 2u);
}

TEST_F(StorebagCacheTest, AFailureLeavesTheLastGoodSection) {
    answerBag(1, "600");
    expectServed(kStremcore, 1);
    answerTooMuch();
    advanceClock(seconds(600));
    expectServed(kStremcore, 1);
    expectServed(kStremcore, 1);
    EXPECT_EQ(_server.requestCount(), 2u);
    EXPECT_THAT(logLines(), Contains("<7>fetchAndCacheStorebag: Storebag max age: 0 seconds"));
}

TEST_F(StorebagCacheTest, AnUnchangedBagStartsANewPeriod) {
    answerBag(1, "600", "Monday");
    expectServed(kStremcore, 1);
    advanceClock(seconds(600));
    answer("", {{"Cache-Control", "max-age=50"}, {"Last-Modified", "Friday"}}, 304);
    forgetLines();
    expectServed(kStremcore, 1);
    EXPECT_THAT(lines(), IsEmpty());
    advanceClock(seconds(49));
    expectServed(kStremcore, 1);
    EXPECT_EQ(_server.requestCount(), 2u);

    answerBag(2, "600", "Sunday");
    advanceClock(seconds(1));
    expectServed(kStremcore, 2);
    advanceClock(seconds(600));
    expectServed(kStremcore, 2);
    const auto requests = _server.requests();
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_EQ(requests[0].header("If-Modified-Since"), "absent");
    EXPECT_EQ(requests[1].header("If-Modified-Since"), "Monday");
    EXPECT_EQ(requests[2].header("If-Modified-Since"), "Monday");
    EXPECT_EQ(requests[3].header("If-Modified-Since"), "Sunday");
}

TEST_F(StorebagCacheTest, AClockThatWentBackCountsAsElapsedTime) {
    answerBag(1, "600");
    expectServed(kStremcore, 1);
    answerBag(2, "600");
    advanceClock(-seconds(599));
    expectServed(kStremcore, 1);
    advanceClock(-seconds(1));
    expectServed(kStremcore, 2);
    answer("");
    advanceClock(-hours(24));
    expectServed(kStremcore, 2);
    advanceClock(-seconds(899));
    expectServed(kStremcore, 2);
    EXPECT_EQ(_server.requestCount(), 3u);
    advanceClock(-seconds(1));
    expectServed(kStremcore, 2);
    EXPECT_EQ(_server.requestCount(), 4u);
}

TEST_F(StorebagCacheTest, TypesWithoutABagAreNotAskedFor) {
    for (const std::int32_t type : {-1, 0, 1, 4, 12}) {
        forgetLines();
        EXPECT_EQ(ask(type), nullptr);
        EXPECT_EQ(_cache.storebagVersion(type), std::nullopt);
        EXPECT_THAT(logLines(), IsEmpty());
    }
    EXPECT_EQ(_server.requestCount(), 0u);
}

}  // namespace
}  // namespace quorvane
