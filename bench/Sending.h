#pragma once

#include "bench/ProcessFigures.h"

#include <quorvane/Client.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace quorvane::bench {

/// The number-th event of the load.
Event event(std::uint64_t number);

/// Whether the client wants an answer to each event.
enum class Answers { Wanted, Unwanted };

/// Sends events number `first` and on without waiting for each one's answer, as many unanswered at a time as
/// the client allows, and waits for an answer to the last. How many went through in a second.
double sendPipelined(Client& client, std::uint64_t first, std::uint64_t count,
                     Answers answers = Answers::Wanted);

/// How long waiting calls took.
class Latencies {
  public:
    explicit Latencies(std::vector<Nanoseconds> samples);
    /// The shortest time that this share of the calls stayed within, share in (0, 1].
    Nanoseconds percentile(double share) const;

  private:
    std::vector<Nanoseconds> _sorted;
};

/// How long each call of the function took; it gets the call's number, from 0.
Latencies timeEach(std::uint64_t count, const std::function<void(std::uint64_t)>& function);

/// Sends events one after another, each when the one before is answered.
Latencies sendWaiting(Client& client, std::uint64_t count);

}  // namespace quorvane::bench
