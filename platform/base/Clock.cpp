#include "platform/base/Clock.h"

#include <atomic>
#include <chrono>

namespace quorvane::platform {

namespace {

TimeValue systemTimeOfDay() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto microseconds = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
    return {microseconds / 1'000'000, static_cast<std::int32_t>(microseconds % 1'000'000)};
}

std::atomic<TimeValue (*)()> clockSource{systemTimeOfDay};

}  // namespace

TimeValue timeOfDay() {
    return clockSource.load(std::memory_order_relaxed)();
}

TimeValue earlier(TimeValue time, std::chrono::microseconds age) {
    constexpr std::int64_t second = 1'000'000;
    const std::int64_t microseconds = time.microseconds - age.count() % second;
    const bool borrows = microseconds < 0;
    return {time.seconds - age.count() / second - (borrows ? 1 : 0),
            static_cast<std::int32_t>(borrows ? microseconds + second : microseconds)};
}

void replaceClock(TimeValue (*source)()) {
    clockSource = source != nullptr ? source : systemTimeOfDay;
}

}  // namespace quorvane::platform
