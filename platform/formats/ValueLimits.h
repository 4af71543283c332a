#pragma once

#include <cstddef>

namespace quorvane::platform {

// Limits on a value read from outside, whatever its format. A few hundred bytes can ask for more values than
// there is memory for, or for more depth than the stack has.
inline constexpr std::size_t kMaximumDepth = 128;         ///< Arrays and dictionaries in each other.
inline constexpr std::size_t kMaximumValues = 1'000'000;  ///< Keys are not counted.
inline constexpr std::size_t kMaximumBytes = std::size_t{64} << 20;  ///< In texts, keys and data.

inline constexpr const char* kTooDeep = "is nested deeper than 128 levels";
inline constexpr const char* kTooLarge = "has more than a million values or 64 MiB";

}  // namespace quorvane::platform
