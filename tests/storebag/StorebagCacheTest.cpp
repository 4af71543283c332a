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

TEST_F(StorebagCacheTest, TypesOfOneBagShareTheDownloadAndThoseWithoutOneAreNotAskedFor) {
    for (const std::int32_t type : {-1, 0, 1, 4, 12}) {
        EXPECT_EQ(ask(type), nullptr);
        EXPECT_EQ(_cache.storebagVersion(type), std::nullopt);
    }
    EXPECT_THAT(logLines(), IsEmpty());
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
    for (int times = 0; times < 2; ++times) expectServed(kStremcore, 1);
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
    for (const int untilThen : {1, 600}) {
        advanceClock(seconds(untilThen));
        expectServed(kStremcore, 2);
    }
    std::vector<std::string> dates;
    for (const auto& request : _server.requests()) dates.push_back(request.header("If-Modified-Since"));
    EXPECT_THAT(dates, ElementsAre("absent", "Monday", "Monday", "Sunday"));
}

TEST_F(StorebagCacheTest, AClockThatWentBackCountsAsElapsedTime) {
    answerBag(1, "600");
    expectServed(kStremcore, 1);
    answerBag(2, "600");
    const auto expectAfter = [this](seconds back, int version, std::size_t requests) {
        advanceClock(-back);
        expectServed(kStremcore, version);
        EXPECT_EQ(_server.requestCount(), requests);
    };
    expectAfter(seconds(599), 1, 1);
    expectAfter(seconds(1), 2, 2);
    answer("");
    expectAfter(hours(24), 2, 3);
    expectAfter(seconds(899), 2, 3);
    expectAfter(seconds(1), 2, 4);
}

}  // namespace
}  // namespace quorvane
