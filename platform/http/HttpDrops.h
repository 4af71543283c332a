#pragma once

#include "platform/base/RateLimitedCount.h"
#include "platform/base/ThreadAnnotations.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace quorvane::platform {

/// Counts the posts that are dropped, with a warning for each server and second at most. Thread-safe.
class HttpDrops {
  public:
    using Time = RateLimitedCount::Time;

    /// Whether writeDue() now has something to do that it had not.
    bool add(const std::string& server);
    /// Writes the warnings whose time has come.
    void writeDue(Time now);
    /// When to call that again.
    std::optional<Time> nextDue();
    std::uint64_t count();

  private:
    Mutex _mutex;
    std::map<std::string, RateLimitedCount> _servers GUARDED_BY(_mutex);  ///< Those of the last second.
    std::uint64_t _count GUARDED_BY(_mutex) = 0;
};

}  // namespace quorvane::platform
