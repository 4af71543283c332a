#include "platform/base/ByteRoom.h"

#include <future>
#include <limits>
#include <thread>

namespace quorvane::platform {
namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kLong = 20s;

TEST(ByteRoom, HoldsNoMoreThanItsBytes) {
    ByteRoom room(10);
    const auto first = room.enter(6, 0ms);
    auto second = room.enter(4, 0ms);
    EXPECT_TRUE(first && second);
    EXPECT_FALSE(room.enter(1, 0ms));
    second->shrinkTo(3);
    second->shrinkTo(8);
    EXPECT_FALSE(room.enter(2, 0ms));
    EXPECT_TRUE(room.enter(1, 0ms));
}

TEST(ByteRoom, WhoWantsMoreThanAllGetsItAlone) {
    ByteRoom room(10);
    auto small = room.enter(1, 0ms);
    EXPECT_FALSE(room.enter(11, 0ms));
    small.reset();
    const auto large = room.enter(std::numeric_limits<std::size_t>::max(), 0ms);
    EXPECT_TRUE(large);
    EXPECT_FALSE(room.enter(1, 0ms));
}

TEST(ByteRoom, EveryoneGetsATurn) {
    ByteRoom room(10);
    auto first = room.enter(6, 0ms);
    std::promise<void> asked;
    auto large = std::async(std::launch::async, [&] {
        asked.set_value();
        return room.enter(10, kLong).has_value();
    });
    asked.get_future().wait();
    // Until the large one waits, small ones still get in.
    while (room.enter(4, 1ms)) std::this_thread::yield();
    auto behind = std::async(std::launch::async, [&] { return room.enter(4, kLong).has_value(); });
    first.reset();
    EXPECT_TRUE(large.get());
    EXPECT_TRUE(behind.get());
}

}  // namespace
}  // namespace quorvane::platform
