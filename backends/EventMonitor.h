#pragma once

#include "platform/base/Clock.h"

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvane {

/// What became of one event of a session, or of several that went together.
struct EventNews {
    std::string_view fate;  ///< "held", "posted", "refused", "failed" or "dropped"
    std::uint64_t count = 1;
    /// Which of the backend's events they are, as far as they were accepted while somebody watched.
    std::vector<std::uint64_t> numbers = {};
    std::optional<std::uint16_t> category = {};  ///< of a single one; so is the type
    std::optional<std::uint16_t> type = {};
    std::string_view reason = {};                   ///< of a drop or a failure, for programs
    std::string reasonText = {};                    ///< the same for people
    int status = 0;                                 ///< of a post's answer
    std::optional<std::int64_t> milliseconds = {};  ///< from a post's start to its end
    std::optional<std::uint64_t> held = {};         ///< events in the batch that it joined
    std::string backend = {};                       ///< empty for one that reached none

    // Whose they are; the session's ledger fills it in.
    uid_t user = 0;
    pid_t process = 0;
    std::optional<std::uint32_t> sessionID = {};
    std::optional<std::string> clientName = {};
    std::optional<std::string> serviceName = {};
    platform::TimeValue time = {};

    /// About what it takes, in bytes.
    std::size_t heldBytes() const;
};

/// Watches what becomes of events, from its making to its end. While there is none, an event costs the
/// question whether there is any. Thread-safe.
class EventMonitor {
  public:
    /// Which events; what is absent excludes none.
    struct Filter {
        std::optional<uid_t> user = {};
        std::optional<pid_t> process = {};
        std::optional<std::string> clientName = {};  ///< in any case

        bool matches(const EventNews& news) const;
    };
    /// Runs on the threads that handle events, for several of them at once, and on one still when the monitor
    /// ends meanwhile. Must not block.
    using Told = std::function<void(const std::shared_ptr<const EventNews>&)>;

    EventMonitor(Filter filter, Told told);
    ~EventMonitor();
    EventMonitor(const EventMonitor&) = delete;
    EventMonitor& operator=(const EventMonitor&) = delete;

    static bool isWatched() { return count.load(std::memory_order_relaxed) > 0; }
    /// Whether anybody watches the user's events.
    static bool watches(uid_t user);
    static void tell(EventNews news);

  private:
    struct Watcher {
        Filter filter;
        Told told;
    };
    struct All;
    static All& all();

    static inline std::atomic<std::size_t> count = 0;

    const std::shared_ptr<const Watcher> _watcher;
};

}  // namespace quorvane
