#pragma once

#include <quorvane/Client.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <optional>

namespace quorvane::client {

/// The point at which the time is up, if ever.
using Deadline = std::optional<std::chrono::steady_clock::time_point>;

Deadline deadlineAfter(Timeout timeout);

/// The rest as poll(2) takes it: -1 for ever.
int millisecondsUntil(const Deadline& deadline);

/// The rest as the bus library takes it: UINT64_MAX for ever, at least 1.
std::uint64_t microsecondsUntil(const Deadline& deadline);

/// The rest until a point of CLOCK_MONOTONIC in microseconds, as ppoll(2) takes it; nothing for UINT64_MAX.
std::optional<timespec> timeUntil(std::uint64_t point);

}  // namespace quorvane::client
