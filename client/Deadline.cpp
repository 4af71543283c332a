#include "client/Deadline.h"

#include <algorithm>
#include <climits>
#include <ctime>

namespace quorvane::client {

using Clock = std::chrono::steady_clock;

namespace {

constexpr std::uint64_t kSecond = 1'000'000;

}  // namespace

Deadline deadlineAfter(Timeout timeout) {
    // The steady clock's 64 bits of nanoseconds overflow after 292 years.
    constexpr Timeout longest = std::chrono::hours(24 * 365 * 100);
    if (timeout > longest) return std::nullopt;
    return Clock::now() + timeout;
}

int millisecondsUntil(const Deadline& deadline) {
    if (!deadline) return -1;
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(rest, 0, INT_MAX));
}

std::uint64_t microsecondsUntil(const Deadline& deadline) {
    if (!deadline) return UINT64_MAX;
    const auto rest = std::chrono::ceil<std::chrono::microseconds>(*deadline - Clock::now()).count();
    return static_cast<std::uint64_t>(std::max<std::int64_t>(rest, 1));
}

std::uint64_t pointOf(const Deadline& deadline) {
    if (!deadline) return UINT64_MAX;
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(deadline->time_since_epoch()).count());
}

std::uint64_t microsecondsUntilPoint(std::uint64_t point) {
    if (point == UINT64_MAX) return point;
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const std::uint64_t at =
        static_cast<std::uint64_t>(now.tv_sec) * kSecond + static_cast<std::uint64_t>(now.tv_nsec) / 1000;
    return point > at ? point - at : 0;
}

std::optional<timespec> timespecOf(std::uint64_t microseconds) {
    if (microseconds == UINT64_MAX) return std::nullopt;
    return timespec{static_cast<time_t>(microseconds / kSecond),
                    static_cast<long>(microseconds % kSecond * 1000)};
}

}  // namespace quorvane::client
