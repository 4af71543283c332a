#pragma once

#include "backends/BackendState.h"
#include "backends/EventMonitor.h"
#include "platform/base/UserAccount.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvane {

class SessionLedger;

/// Why an event that a backend accepted goes nowhere.
enum class DropReason : std::uint8_t {
    // The backend does not report.
    NoConsent,
    NoClientList,
    NoMatchingClient,
    CountryNotListed,
    DeviceNotListed,
    NoFilters,
    NoSamplingThreshold,
    SampledOut,
    ParentDoesNotReport,
    StoppedByServer,
    // It reports, or may come to.
    ThresholdRecord,  ///< it made the batch grow past its threshold
    NoURL,
    NoIdentifier,  ///< the device has none to post under
    NotSerialisable,
    NoRoom,         ///< in what backends may hold
    ServerTooSlow,  ///< no room, or no turn in time, among the posts that wait
    SessionEnded,   ///< while the event was held
    CutOff,         ///< the backend ended before its fate was known
    TakesNoEvents,  ///< the backend is not for the events of sessions
    NoAdaptor,
    kCount
};

inline constexpr std::size_t kDropReasons = static_cast<std::size_t>(DropReason::kCount);

/// Why a backend of that standing drops events.
DropReason dropReasonOf(ReportingReason reason);

/// How often what happened to events. Every event accepted is at one place: the sums are equal.
struct EventTotals {
    std::uint64_t accepted = 0;
    std::uint64_t posted = 0;   ///< answered with 2xx, acknowledged, or handed over where nothing is answered
    std::uint64_t refused = 0;  ///< answered otherwise
    std::uint64_t failed = 0;   ///< no answer came
    std::uint64_t underWay = 0;
    std::uint64_t held = 0;
    std::array<std::uint64_t, kDropReasons> dropped{};
    /// Posts, of one event or many, by the hundreds of the answer's status; under 0 those without an answer.
    std::array<std::uint64_t, 6> posts{};

    std::uint64_t droppedInAll() const;
    bool balance() const;
    EventTotals& operator+=(const EventTotals& other);
};

/// A count that one thread writes and every thread reads.
class OwnCount {
  public:
    void add(std::uint64_t number) {
        _number.store(_number.load(std::memory_order_relaxed) + number, std::memory_order_relaxed);
    }
    void subtract(std::uint64_t number) { add(-number); }
    std::uint64_t get() const { return _number.load(std::memory_order_relaxed); }

  private:
    std::atomic<std::uint64_t> _number{0};
};

/// A count that any thread writes.
class SharedCount {
  public:
    void add(std::uint64_t number) { _number.fetch_add(number, std::memory_order_relaxed); }
    void subtract(std::uint64_t number) { add(-number); }
    std::uint64_t get() const { return _number.load(std::memory_order_relaxed); }

  private:
    std::atomic<std::uint64_t> _number{0};
};

/// One event of a backend, or several that go together.
struct EventGroup {
    std::uint64_t count = 1;
    /// Of a single one, and only while somebody watches; so are the numbers and the time.
    std::optional<std::uint16_t> category = {};
    std::optional<std::uint16_t> type = {};
    std::vector<std::uint64_t> numbers = {};  ///< 1 is the backend's first event
    std::optional<std::chrono::steady_clock::time_point> handedOver = {};
};

/// How a post went, for those who watch.
struct PostAnswer {
    int status = 0;               ///< 0 without an answer
    std::string_view error = {};  ///< what came instead
};

/// Keeps count of one backend's events, from their acceptance to their end: an event is first in hand, then
/// held or handed over, or its fate is known. What is still on its way when the ledger ends is dropped. Tells
/// those who watch of each fate.
class EventLedger {
  public:
    enum class Fate { Posted, Refused, Failed };

    EventLedger() = default;
    ~EventLedger();
    EventLedger(const EventLedger&) = delete;
    EventLedger& operator=(const EventLedger&) = delete;

    /// Makes it count in the session's ledger from now on. Once, before anything is counted.
    ///   backend  as those who watch know it
    void join(std::shared_ptr<SessionLedger> session, std::string backend = "");

    /// Of the session's user; without a session of the process's own.
    platform::UserAccount& account() const;

    // The thread that feeds the backend.
    /// Of the events in hand, the one accepted is the current one.
    void accept(std::uint16_t category, std::uint16_t type) {
        _accepted.add(1);
        _inHand.add(1);
        _current = {category, type, EventMonitor::isWatched() ? _accepted.get() : 0};
    }
    EventGroup current() const;
    /// The current one.
    void hold();
    /// All that is held, which are so many.
    EventGroup take(std::uint64_t events);
    void drop(DropReason reason) { drop(reason, current()); }
    void drop(DropReason reason, const EventGroup& events);
    void handOver(EventGroup& events);

    // Any thread, of what was handed over.
    void finish(Fate fate, const EventGroup& events, const PostAnswer& answer = {});
    void dropHandedOver(DropReason reason, const EventGroup& events);
    /// 0 for a post without an answer.
    void countPost(int status);

    // Any thread.
    std::uint64_t held() const { return _held.get(); }
    /// As they are at one moment, unless events move too fast to be caught standing still.
    EventTotals totals() const;

  private:
    struct Current {
        std::uint16_t category = 0;
        std::uint16_t type = 0;
        std::uint64_t number = 0;  ///< 0 when nobody watched its acceptance
    };

    EventTotals read() const;
    void finishAll();
    bool isWatched() const { return _session != nullptr && EventMonitor::isWatched(); }
    void tell(EventNews news, const EventGroup& events) const;
    void tellDrop(DropReason reason, const EventGroup& events) const;

    std::shared_ptr<SessionLedger> _session;
    std::string _backend;
    Current _current;
    std::vector<std::uint64_t> _heldNumbers;
    OwnCount _accepted, _inHand, _held;
    SharedCount _handedOver, _posted, _refused, _failed;
    std::array<SharedCount, kDropReasons> _dropped;
    std::array<SharedCount, 6> _posts;
};

}  // namespace quorvane
