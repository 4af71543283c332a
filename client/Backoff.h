#pragma once

#include <algorithm>
#include <cstdint>
#include <random>

namespace quorvane::client {

/// Pauses between tries, each twice as long as the one before, up to the longest; a random part of each, up
/// to half, is left out, so that not all programs come at once.
class Backoff {
  public:
    /// In any unit; the first is above 0.
    Backoff(std::uint64_t first, std::uint64_t longest, std::minstd_rand::result_type seed)
        : _first(first), _longest(std::max(first, longest)), _next(first), _random(seed) {}

    std::uint64_t next() {
        const std::uint64_t pause = _next - _random() % (_next / 2 + 1);
        _next = std::min(2 * _next, _longest);
        return pause;
    }
    void reset() { _next = _first; }

  private:
    const std::uint64_t _first, _longest;
    std::uint64_t _next;
    std::minstd_rand _random;
};

}  // namespace quorvane::client
