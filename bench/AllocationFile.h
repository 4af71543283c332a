#pragma once

#include <cstddef>

namespace quorvane::bench {

/// Names the file that a program with CountAllocations.cpp in it counts in: one 64-bit number.
inline constexpr const char* kAllocationFileVariable = "QUORVANE_BENCH_ALLOCATIONS";
inline constexpr std::size_t kAllocationFileSize = 8;

}  // namespace quorvane::bench
