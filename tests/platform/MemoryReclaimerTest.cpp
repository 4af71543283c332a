#include "platform/base/FreedMemory.h"
#include "platform/system/Memory.h"

#include <fstream>

namespace quorvane::platform {
namespace {

using namespace std::chrono_literals;

long residentKiB() {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;)
        if (word == "RssAnon:") {
            long size = 0;
            status >> size;
            return size;
        }
    return 0;
}

TEST(MemoryReclaimer, GivesBackWhatABurstLeavesBelowWhatIsStillHeld) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers' allocators keep what is freed";
#endif
    const auto loop = RunLoop::init(RunLoop::Watchdog::Ignored);
    const auto reclaimer = MemoryReclaimer::init(*loop);
    constexpr int kBlocks = 1'000;
    constexpr int kBlockKiB = 64;
    std::vector<std::unique_ptr<std::string>> blocks(kBlocks);
    for (auto& block : blocks) block = std::make_unique<std::string>(kBlockKiB * 1024, 'x');
    blocks.erase(blocks.begin(), blocks.end() - 1);
    const long before = residentKiB();
    memoryIsFreed();
    memoryIsFreed();
    loop->addTimer(2500ms, [&] { loop->exit(0); });
    EXPECT_EQ(loop->run(), 0);
    EXPECT_LT(residentKiB(), before - kBlocks * kBlockKiB / 2);
}

}  // namespace
}  // namespace quorvane::platform
