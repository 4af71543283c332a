#pragma once

#include "backends/BackendState.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

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

/// Keeps count of one backend's events, from their acceptance to their end: an event is first in hand, then
/// held or handed over, or its fate is known. What is still on its way when the ledger ends is dropped.
class EventLedger {
  public:
    enum class Fate { Posted, Refused, Failed };

    EventLedger() = default;
    ~EventLedger();
    EventLedger(const EventLedger&) = delete;
    EventLedger& operator=(const EventLedger&) = delete;

    /// Makes it count in the session's ledger from now on. Once, before anything is counted.
    void join(std::shared_ptr<SessionLedger> session);
    const std::shared_ptr<SessionLedger>& session() const { return _session; }

    // The thread that feeds the backend.
    /// The event's number, 1 for the backend's first.
    std::uint64_t accept() {
        _accepted.add(1);
        _inHand.add(1);
        return _accepted.get();
    }
    void hold() {
        _inHand.subtract(1);
        _held.add(1);
    }
    /// Of what is held.
    void take(std::uint64_t events) {
        _held.subtract(events);
        _inHand.add(events);
    }
    void drop(DropReason reason, std::uint64_t events = 1);
    void handOver(std::uint64_t events);

    // Any thread, of what was handed over.
    void finish(Fate fate, std::uint64_t events);
    void dropHandedOver(DropReason reason, std::uint64_t events);
    /// 0 for a post without an answer.
    void countPost(int status);

    // Any thread.
    std::uint64_t held() const { return _held.get(); }
    /// As they are at one moment, unless events move too fast to be caught standing still.
    EventTotals totals() const;

  private:
    EventTotals read() const;
    void finishAll();

    std::shared_ptr<SessionLedger> _session;
    OwnCount _accepted, _inHand, _held;
    SharedCount _handedOver, _posted, _refused, _failed;
    std::array<SharedCount, kDropReasons> _dropped;
    std::array<SharedCount, 6> _posts;
};

}  // namespace quorvane
