#pragma once

#include "bench/ProcessFigures.h"

#include <sys/types.h>

#include <chrono>
#include <vector>

namespace quorvane::bench {

/// What others take of the machine's CPUs from here on, while this process and the given ones are measured.
class OtherWork {
  public:
    /// The processes live as long as this is asked.
    explicit OtherWork(std::vector<pid_t> ours);

    /// Share of all CPU time that passed, in [0, 1].
    double share() const;

  private:
    Nanoseconds othersTime() const;

    std::vector<pid_t> _ours;
    std::chrono::steady_clock::time_point _start;
    Nanoseconds _atStart;
};

}  // namespace quorvane::bench
