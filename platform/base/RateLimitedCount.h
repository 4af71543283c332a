#pragma once

#include <chrono>
#include <cstdint>
#include <utility>

namespace quorvane::platform {

/// Counts what a peer can make happen often, for log lines of which one a second is enough. Not thread-safe.
class RateLimitedCount {
  public:
    using Time = std::chrono::steady_clock::time_point;

    /// How many have come since the last line, with this one.
    std::uint64_t add() { return ++_unwritten; }

    /// How many a line stands for that is written now; 0 when none is to be written.
    std::uint64_t takeDue(Time now) {
        if (now < _nextLine || _unwritten == 0) return 0;
        _nextLine = now + kBetweenLines;
        return std::exchange(_unwritten, 0);
    }

    /// From when on takeDue() may give something.
    Time nextLine() const { return _nextLine; }
    /// Whether it is as good as a new one.
    bool isIdle(Time now) const { return now >= _nextLine && _unwritten == 0; }

  private:
    static constexpr std::chrono::seconds kBetweenLines{1};

    std::uint64_t _unwritten = 0;
    Time _nextLine = std::chrono::steady_clock::now();
};

}  // namespace quorvane::platform
