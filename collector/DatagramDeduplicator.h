#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

namespace quorvane::collector {

/// Remembers for a while which datagrams have come, so that one that is sent again, because its
/// acknowledgement was lost, counts once. Used by one thread.
class DatagramDeduplicator {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// Longer than a sender goes on to send a datagram again: five times, by its storebag's clock (10 s for a
    /// period of 500 ms).
    static constexpr std::chrono::seconds kWindow{30};
    static constexpr std::size_t kMaximumRemembered = 65536;

    /// Whether this datagram is remembered. The name says sender, session and event number; the bytes tell
    /// apart events whose 16-bit number came round again.
    bool contains(const std::string& name, std::string_view bytes, TimePoint now);

    void remember(const std::string& name, std::string_view bytes, TimePoint now);

  private:
    struct Seen {
        std::size_t digest;
        TimePoint time;
    };

    void forgetOld(TimePoint now);

    std::unordered_map<std::string, Seen> _seen;
    std::deque<std::pair<TimePoint, std::string>> _order;  ///< oldest first; a name may stand here twice
};

}  // namespace quorvane::collector
