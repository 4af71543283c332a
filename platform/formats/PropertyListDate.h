#pragma once

#include "platform/value/Value.h"

#include <cstdint>

namespace quorvane::platform {

/// Where the dates of property lists and keyed archives count from, 2001, in seconds since 1970.
constexpr std::int64_t kPropertyListEpoch = 978'307'200;

/// The date in seconds as they count them.
inline double propertyListTime(Date date) {
    return static_cast<double>(date.microseconds) / 1e6 - static_cast<double>(kPropertyListEpoch);
}

}  // namespace quorvane::platform
