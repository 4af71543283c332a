#include "tests/service/ChainFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <string_view>

namespace quorvane::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::string_view kUnreachable = "<3>sendMessageWithDictionary: Failed to get remote object proxy: ";

class AggregationChainTest : public ChainFixture {
  protected:
    static constexpr Options kAggregates{.aggregates = true};

    static std::string ended(const ChainProcess& process) {
        return "ended for " + std::to_string(process.sessionID());
    }

    static std::string event(int number, const ChainProcess& aggregator) {
        return "event " + std::to_string(number) + " for " + std::to_string(aggregator.sessionID());
    }
};

TEST_F(AggregationChainTest, TheHighestOfThreeAggregatorsTakesOver) {
    const auto bottom = started(Place::Bottom, "Chain", kAggregates);
    bottom->tell(send(1));
    EXPECT_TRUE(bottom->says(event(1, *bottom))) << "nobody stands above it";

    const auto middle = started(Place::Middle, "chain", kAggregates);
    EXPECT_TRUE(bottom->says(ended(*bottom)));
    bottom->tell(send(2));
    middle->tell(send(3));
    EXPECT_THAT(middle->waitForReceived(2), ElementsAre(2, 3));

    const auto top = started(Place::Top, "CHAIN", kAggregates);
    EXPECT_TRUE(middle->says(ended(*middle)));
    bottom->tell(send(4));
    middle->tell(send(5));
    top->tell(send(6));
    EXPECT_THAT(top->waitForReceived(3), ElementsAre(4, 5, 6));
    EXPECT_TRUE(top->says(event(4, *top))) << "with its own session's ID";

    // A latecomer's aggregation ends at once, and everyone's end is passed on.
    const auto latecomer = started(Place::Bottom, "Chain", kAggregates);
    EXPECT_TRUE(latecomer->says(ended(*latecomer)));
    latecomer->tell(send(7));
    latecomer->leave(_device);
    EXPECT_THAT(top->waitForReceived(4), ElementsAre(4, 5, 6, 7));
    EXPECT_TRUE(top->says("end of a session for " + std::to_string(top->sessionID())));

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
    const auto stranger = started(Place::Bottom, "Other");
    EXPECT_TRUE(bottom->says(ended(*bottom)));
    top->tell(send(1));
    stranger->tell(send(2));
    bottom->tell(send(3));
    middle->tell(send(4));
    EXPECT_THAT(middle->waitForReceived(2), ElementsAre(3, 4));

    // The stranger joins; the aggregator itself moves away and takes nobody along.
    stranger->tell(renameTo("Chain"));
    stranger->tell(send(5));
    EXPECT_THAT(middle->waitForReceived(3), ElementsAre(3, 4, 5));
    middle->tell(renameTo("Other"));
    bottom->tell(send(6));
    stranger->tell(send(7));
    middle->tell(send(8));
    EXPECT_THAT(middle->waitForReceived(4), ElementsAre(3, 4, 5, 8));
    EXPECT_THAT(bottom->received(), IsEmpty()) << "its aggregation has ended for good";
}

TEST_F(AggregationChainTest, AKilledAggregatorCostsItsChainNothing) {
    auto top = started(Place::Top, "Chain", kAggregates);
    const auto middle = started(Place::Middle, "Chain", kAggregates);
    middle->tell(send(1));
    EXPECT_THAT(top->waitForReceived(1), ElementsAre(1));
    top->signal(SIGKILL);
    EXPECT_TRUE(eventually([this] { return logged(kUnreachable) == 2; })) << "its session's end, and its own";

    EXPECT_EQ(middle->tell(send(2)), "1 answered");
    EXPECT_EQ(logged(kUnreachable), 2u) << "nobody is there to be told";
    top = started(Place::Top, "Chain", kAggregates);
    EXPECT_EQ(middle->tell(send(3)), "1 answered");
    EXPECT_THAT(top->waitForReceived(1), ElementsAre(3));
    EXPECT_THAT(middle->received(), IsEmpty());
    for (const int number : {1, 2, 3}) EXPECT_FALSE(postedUnder(number).empty()) << number;
}

TEST_F(AggregationChainTest, AnAggregatorThatNeverReadsLosesEventsPastABoundAndHoldsNobodyUp) {
    constexpr std::size_t kEvents = 200;
    constexpr std::size_t kBytes = 64 << 10;
    constexpr std::size_t kLeast = 60;                  // The bound of 4 MiB.
    constexpr std::size_t kMost = (10 << 20) / kBytes;  // Twice the bound, and what the kernel holds.
    const auto top = started(Place::Top, "Chain", kAggregates);
    const auto middle = started(Place::Middle, "Chain");
    top->signal(SIGSTOP);
    const std::string all = std::to_string(kEvents);
    EXPECT_EQ(middle->tell("send 1000 " + all + " " + std::to_string(kBytes)), all + " answered");
    EXPECT_TRUE(_device.waitForEvents(kOurs, kEvents));
    const std::size_t lost = logged(kUnreachable);
    EXPECT_EQ(lost, logged("proxy: the client is gone or does not read\n"));
    EXPECT_GE(lost, kEvents - kMost);
    EXPECT_LE(lost, kEvents - kLeast);

    top->signal(SIGCONT);
    EXPECT_EQ(top->waitForReceived(kEvents - lost).size(), kEvents - lost);
    middle->tell(send(1));
    EXPECT_TRUE(top->says(event(1, *top))) << "it has caught up";
    EXPECT_EQ(top->received().size(), kEvents - lost + 1);
    EXPECT_EQ(logged(kUnreachable), lost);
}

}  // namespace
}  // namespace quorvane::test
