#include "platform/base/MemoryBudget.h"

#include <future>
#include <limits>
#include <thread>

namespace quorvane::platform {
namespace {

using namespace std::chrono_literals;

constexpr MemoryBudget::Patience kNone{0ms, 0ms};
constexpr MemoryBudget::Patience kLong{20s, 20s};

TEST(MemoryBudget, HoldsNoMoreThanItsBytesUnlessOneAloneWantsMore) {
    MemoryBudget budget({.each = 10, .inAll = 100});
    auto first = budget.acquire("a", 6, kNone);
    auto second = budget.acquire("a", 4, kNone);
    EXPECT_TRUE(first && second);
    EXPECT_FALSE(budget.acquire("a", 1, kNone));
    second->shrinkTo(3);
    second->shrinkTo(8);
    EXPECT_FALSE(budget.acquire("a", 2, kNone));
    auto third = budget.acquire("a", 1, kNone);
    EXPECT_TRUE(third);

    // Who wants more than all gets it alone.
    EXPECT_FALSE(budget.acquire("b", 101, kNone));
    for (auto* held : {&first, &second, &third}) held->reset();
    const auto large = budget.acquire("b", std::numeric_limits<std::size_t>::max(), kNone);
    EXPECT_TRUE(large);
    EXPECT_FALSE(budget.acquire("a", 1, kNone));
}

TEST(MemoryBudget, EachGetsItsShareHoweverMuchTheOthersHave) {
    MemoryBudget budget({.each = 10, .inAll = 15, .share = 3, .holders = 3});
    const auto a = budget.acquire("a", 10, kNone);
    auto b = budget.acquire("b", 5, kNone);
    EXPECT_FALSE(budget.acquire("b", 1, kNone));
    const auto c = budget.acquire("c", 3, kNone);
    EXPECT_TRUE(c);
    EXPECT_FALSE(budget.acquire("c", 1, kNone));
    EXPECT_FALSE(budget.acquire("d", 1, kLong)) << "one holder too many is refused at once";
    b.reset();
    EXPECT_TRUE(budget.acquire("d", 1, kNone)) << "who has nothing is forgotten";
    EXPECT_TRUE(budget.acquire("c", 2, kNone));
}

TEST(MemoryBudget, EveryoneGetsATurn) {
    MemoryBudget budget({.each = 10, .inAll = 100});
    auto first = budget.acquire("a", 6, kNone);
    std::promise<void> asked;
    auto large = std::async(std::launch::async, [&] {
        asked.set_value();
        return budget.acquire("a", 10, kLong).has_value();
    });
    asked.get_future().wait();
    // Until the large one waits, small ones still get in.
    while (budget.acquire("a", 4, {1ms, 1ms})) std::this_thread::yield();
    auto behind = std::async(std::launch::async, [&] { return budget.acquire("a", 4, kLong).has_value(); });
    EXPECT_TRUE(budget.acquire("b", 4, kNone)) << "the line of one is no other's";
    first.reset();
    EXPECT_TRUE(large.get());
    EXPECT_TRUE(behind.get());
}

TEST(MemoryBudget, WaitsEndWhereNothingIsGivenBackAndWhenTheyAreEnded) {
    MemoryBudget budget({.each = 10, .inAll = 100});
    auto stuck = budget.acquire("a", 10, kNone);
    EXPECT_FALSE(budget.acquire("a", 1, {50ms, 20s}));
    EXPECT_FALSE(budget.acquire("a", 1, {20s, 50ms}));
    auto waiting = std::async(std::launch::async, [&] { return budget.acquire("a", 1, kLong).has_value(); });
    budget.endWaits();
    EXPECT_FALSE(waiting.get());
    stuck.reset();
    EXPECT_TRUE(budget.acquire("a", 1, kNone));
}

}  // namespace
}  // namespace quorvane::platform
