#include "tests/service/ChainFixture.h"

#include <regex>
#include <string>
#include <string_view>
#include <thread>

namespace quorvane::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::string_view kUnreachable = "] sendMessageWithDictionary: Failed to get remote object proxy: ";

class AggregationChainTest : public ChainFixture {
  protected:
    static constexpr Options kAggregates{.aggregates = true};

    /// How many events the lines stand for beside their own.
    std::size_t otherwiseLost() {
        static const std::regex others(R"( \(and (\d+) more\)\n)");
        const std::string log = _device.daemon().errors();
        std::size_t count = 0;
        for (std::sregex_iterator line(log.begin(), log.end(), others), end; line != end; ++line)
            count += std::stoul((*line)[1]);
        return count;
    }
};

TEST_F(AggregationChainTest, TheHighestOfThreeAggregatorsTakesOver) {
    const auto bottom = started(Place::Bottom, "Chain", kAggregates);
    bottom->send(1);
    EXPECT_THAT(bottom->waitForReceived(1), ElementsAre(1)) << "nobody stands above it";

    const auto middle = started(Place::Middle, "chain", kAggregates);
    EXPECT_TRUE(bottom->ends());
    bottom->send(2);
    middle->send(3);
    EXPECT_THAT(middle->waitForReceived(2), ElementsAre(2, 3));

    const auto top = started(Place::Top, "CHAIN", kAggregates);
    EXPECT_TRUE(middle->ends());
    bottom->send(4);
    middle->send(5);
    top->send(6);
    EXPECT_THAT(top->waitForReceived(3), ElementsAre(4, 5, 6));

    // A latecomer's aggregation ends at once, and everyone's end is passed on.
    const auto latecomer = started(Place::Bottom, "Chain", kAggregates);
    EXPECT_TRUE(latecomer->ends());
    latecomer->send(7);
    latecomer->leave();
    EXPECT_THAT(top->waitForReceived(4), ElementsAre(4, 5, 6, 7));
    EXPECT_TRUE(top->hearsOfAnEnd());

    EXPECT_THAT(bottom->received(), ElementsAre(1));
    EXPECT_THAT(middle->received(), ElementsAre(2, 3));
    EXPECT_THAT(latecomer->received(), IsEmpty());
    EXPECT_EQ(logged(kUnreachable), 0u);
    for (const int number : {1, 2, 3, 4, 5, 6, 7}) EXPECT_FALSE(postedUnder(number).empty()) << number;
}

TEST_F(AggregationChainTest, AnAggregatorBelowATopThatDoesNotKeepsItsEventsAndThoseBelow) {
    const auto top = started(Place::Top, "Chain");
    const auto bottom = started(Place::Bottom, "Chain", kAggregates);
    const auto middle = started(Place::Middle, "Chain", kAggregates);
    EXPECT_TRUE(bottom->ends());
    top->send(1);
    bottom->send(2);
    middle->send(3);
    EXPECT_THAT(middle->waitForReceived(2), ElementsAre(2, 3));

    // It moves away and takes nobody along.
    middle->rename("Other");
    bottom->send(4);
    middle->send(5);
    EXPECT_THAT(middle->waitForReceived(3), ElementsAre(2, 3, 5));
    EXPECT_THAT(bottom->received(), IsEmpty()) << "its aggregation has ended for good";
}

TEST_F(AggregationChainTest, AnAggregatorThatIsGoneCostsItsChainNothing) {
    auto top = started(Place::Top, "Chain", kAggregates);
    const auto middle = started(Place::Middle, "Chain", kAggregates);
    middle->send(1);
    EXPECT_THAT(top->waitForReceived(1), ElementsAre(1));
    top.reset();
    EXPECT_TRUE(eventually([this] { return logged(kUnreachable) == 1; }));

    EXPECT_TRUE(middle->send(2));
    top = started(Place::Top, "Chain", kAggregates);
    EXPECT_TRUE(middle->send(3));
    EXPECT_THAT(top->waitForReceived(1), ElementsAre(3));
    EXPECT_THAT(middle->received(), IsEmpty());
    for (const int number : {1, 2, 3}) EXPECT_FALSE(postedUnder(number).empty()) << number;
}

TEST_F(AggregationChainTest, AnAggregatorThatDoesNotReadLosesEventsPastABoundAndHoldsNobodyUp) {
    constexpr std::int64_t kEvents = 400;
    constexpr std::size_t kBytes = 64 << 10;
    constexpr std::size_t kLeast = 120;  // The bounds of 4 MiB in the daemon and in the client.
    constexpr std::size_t kMost = (12 << 20) / kBytes;  // And what the kernel and the bus hold.
    const auto top = started(Place::Top, "Chain", kAggregates);
    const auto middle = started(Place::Middle, "Chain");
    {
        const std::scoped_lock stalled(top->stalls);
        for (std::int64_t number = 1; number <= kEvents; ++number)
            EXPECT_TRUE(middle->send(number, std::string(kBytes, 'x')));
        EXPECT_TRUE(_device.waitForEvents(kOurs, kEvents));
    }
    EXPECT_GE(logged("proxy: the client is gone or does not read\n"), 1u);
    std::this_thread::sleep_for(std::chrono::seconds(1));  // A line may be written again.
    const std::size_t lost = kEvents - top->received().size();
    EXPECT_GE(lost, kEvents - kMost);
    EXPECT_LE(lost, kEvents - kLeast);

    middle->send(kEvents + 1);
    EXPECT_EQ(top->waitForReceived(kEvents - lost + 1).back(), kEvents + 1) << "it has caught up";
    const std::size_t lines = logged(kUnreachable);
    top->hangUp();
    EXPECT_TRUE(eventually([&] { return logged(kUnreachable) == lines + 1; }));
    EXPECT_EQ(lines + 1 + otherwiseLost(), lost + 1) << "of the end's two, the first";
    EXPECT_LE(lines, 10u);
}

TEST_F(AggregationChainTest, AnAggregatorHearsOfItsSessionsEndWhenTheDaemonEnds) {
    const auto top = started(Place::Top, "Chain", kAggregates);
    top->send(1);
    EXPECT_EQ(_device.daemon().terminate(), 0);
    EXPECT_TRUE(top->hearsOfAnEnd());
    EXPECT_TRUE(top->ends());
    EXPECT_EQ(logged(kUnreachable), 0u);
}

}  // namespace
}  // namespace quorvane::test
