#pragma once

#include "bench/ProcessFigures.h"
#include "platform/value/Value.h"

#include <cstdint>
#include <vector>

namespace quorvane::bench {

/// CPU time per event of the work that every way of posting events comes down to, each with nothing around
/// it.
struct UnavoidableWork {
    Nanoseconds reading{};  ///< sd-bus reads the values of an event's message.
    Nanoseconds json{};     ///< RapidJSON writes the records into a buffer that is kept.
    Nanoseconds gzip{};     ///< zlib, level 6, a stream for each batch.
    Nanoseconds sha256{};   ///< OpenSSL hashes two short texts, with a context that is kept.
    double jsonBytes = 0;   ///< A record's share of its batch.
};

/// Does the work on posted messages, JSON with an array "events" each, over and over until at least `events`
/// events have gone through each step.
UnavoidableWork measureUnavoidableWork(const std::vector<Data>& messages, std::uint64_t events);

/// zlib's gzip form at level 6, with nothing around it.
Data compressAlone(const Data& bytes);

}  // namespace quorvane::bench
