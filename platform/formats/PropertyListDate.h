#pragma once

#include "platform/value/Value.h"

#include <cstdint>
#include <limits>

namespace quorvane::platform {

/// Where the dates of property lists and keyed archives count from, 2001, in seconds since 1970.
constexpr std::int64_t kPropertyListEpoch = 978'307'200;

/// The date in seconds as they count them.
inline double propertyListTime(Date date) {
    return static_cast<double>(date.microseconds) / 1e6 - static_cast<double>(kPropertyListEpoch);
}

/// Whether an XML property list may hold the date, in seconds since 1970. Common readers count from 2001 in
/// 32 bits, which reach from 1933 to 2069.
constexpr bool isXmlDate(std::int64_t seconds) {
    using Limits = std::numeric_limits<std::int32_t>;
    return seconds > kPropertyListEpoch + Limits::min() && seconds < kPropertyListEpoch + Limits::max();
}

}  // namespace quorvane::platform
