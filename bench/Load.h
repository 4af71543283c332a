#pragma once

#include "platform/value/Value.h"

#include <cstdint>

namespace quorvane::bench {

/// The category that the benchmarks' events bear; the daemon's own events bear 0.
inline constexpr std::uint16_t kCategory = 12;
inline constexpr std::uint16_t kType = 200;

/// The payload keys that a filter hashes; their values are short texts.
inline constexpr const char* kHashedKeys[] = {"account", "peer"};

/// The filters of a client entry that hash them.
Array hashingFilters();

/// The payload of the number-th event: 8 keys, values that differ from event to event the way an
/// application's do. A record made of it is about 576 bytes of JSON.
Dictionary payload(std::uint64_t number);

/// The message dictionary of the number-th event, as it crosses the connection.
Dictionary message(std::uint64_t number);

/// The record that the daemon makes of the number-th event, before the filters.
Dictionary record(std::uint64_t number);

}  // namespace quorvane::bench
