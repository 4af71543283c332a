#pragma once

#include "platform/base/Clock.h"

namespace quorvane::collector {

/// "receivedTime" of a line: seconds since 1970 with microseconds as the fraction.
inline double receivedTime() {
    const auto time = platform::timeOfDay();
    return static_cast<double>(time.seconds) + time.microseconds / 1e6;
}

}  // namespace quorvane::collector
