#pragma once

#include <cstddef>

namespace quorvane::platform {

// What a document from outside may become as a Value, whatever its format and however few bytes ask for it.
inline constexpr std::size_t kMaximumDepth = 128;         ///< Arrays and dictionaries in each other.
inline constexpr std::size_t kMaximumValues = 1'000'000;  ///< Keys are not counted.
inline constexpr std::size_t kMaximumBytes = std::size_t{64} << 20;  ///< In texts, keys and data.

inline constexpr const char* kTooDeep = "is nested deeper than 128 levels";
inline constexpr const char* kTooLarge = "has more than a million values or 64 MiB";

}  // namespace quorvane::platform
