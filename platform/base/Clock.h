#pragma once

#include <chrono>
#include <cstdint>

namespace quorvane::platform {

/// A time of day: whole seconds since 1970 and microseconds, 0 to 999999 (gettimeofday(2)).
struct TimeValue {
    std::int64_t seconds = 0;
    std::int32_t microseconds = 0;
};

/// The current time of day. Thread-safe.
TimeValue timeOfDay();

/// The time that lies so long before the one given.
///   age  at least 0
TimeValue earlier(TimeValue time, std::chrono::microseconds age);

/// Puts another source of time behind timeOfDay(); null puts the system's clock back. For tests.
void replaceClock(TimeValue (*source)());

}  // namespace quorvane::platform
