#include "platform/base/MemoryBudget.h"

#include <future>
#include <limits>
#include <thread>

namespace quorvane::platform {
namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kLong = 20s;

TEST(MemoryBudget, HoldsNoMoreThanItsBytes) {
    MemoryBudget budget(10);
    const auto first = budget.acquire(6, 0ms);
    auto second = budget.acquire(4, 0ms);
    EXPECT_TRUE(first && second);
    EXPECT_FALSE(budget.acquire(1, 0ms));
    second->shrinkTo(3);
    second->shrinkTo(8);
    EXPECT_FALSE(budget.acquire(2, 0ms));
    EXPECT_TRUE(budget.acquire(1, 0ms));
}

TEST(MemoryBudget, WhoWantsMoreThanAllGetsItAlone) {
    MemoryBudget budget(10);
    auto small = budget.acquire(1, 0ms);
    EXPECT_FALSE(budget.acquire(11, 0ms));
    small.reset();
    const auto large = budget.acquire(std::numeric_limits<std::size_t>::max(), 0ms);
    EXPECT_TRUE(large);
    EXPECT_FALSE(budget.acquire(1, 0ms));
}

TEST(MemoryBudget, EveryoneGetsATurn) {
    MemoryBudget budget(10);
    auto first = budget.acquire(6, 0ms);
    std::promise<void> asked;
    auto large = std::async(std::launch::async, [&] {
        asked.set_value();
        return budget.acquire(10, kLong).has_value();
    });
    asked.get_future().wait();
    // Until the large one waits, small ones still get in.
    while (budget.acquire(4, 1ms)) std::this_thread::yield();
    auto behind = std::async(std::launch::async, [&] { return budget.acquire(4, kLong).has_value(); });
    first.reset();
    EXPECT_TRUE(large.get());
    EXPECT_TRUE(behind.get());
}

}  // namespace
}  // namespace quorvane::platform
