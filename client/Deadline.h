#pragma once

#include <quorvane/Client.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <optional>

namespace quorvane::client {

/// When to give up; std::nullopt for never.
using Deadline = std::optional<std::chrono::steady_clock::time_point>;

Deadline deadlineAfter(Timeout timeout);

/// Time left, for poll(2): -1 means no limit.
int millisecondsUntil(const Deadline& deadline);

/// Time left, for sd-bus: at least 1, UINT64_MAX means no limit.
std::uint64_t microsecondsUntil(const Deadline& deadline);

/// The deadline as a point of CLOCK_MONOTONIC in microseconds; UINT64_MAX for never.
std::uint64_t pointOf(const Deadline& deadline);

/// Time left until a point of CLOCK_MONOTONIC, both in microseconds; UINT64_MAX for UINT64_MAX.
std::uint64_t microsecondsUntilPoint(std::uint64_t point);

/// So many microseconds, for ppoll(2); std::nullopt for UINT64_MAX.
std::optional<timespec> timespecOf(std::uint64_t microseconds);

}  // namespace quorvane::client
