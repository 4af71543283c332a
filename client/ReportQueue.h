#pragma once

#include "client/Deadline.h"
#include "client/EventView.h"
#include "platform/base/ThreadAnnotations.h"

#include <quorvane/Reporter.h>
#include <quorvane/Session.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace quorvane::client {

/// Microseconds that have passed since some point in the past, those in which the device slept included.
std::uint64_t elapsedMicroseconds();

/// Events packed into one buffer, and what the daemon is to be told before and after them.
struct Parcel {
    /// The user info from these events on; nothing when it stays as it was.
    std::optional<std::optional<Dictionary>> userInfo;
    std::unique_ptr<std::uint8_t[]> buffer;
    std::size_t capacity = 0;
    std::size_t bytes = 0;
    std::uint32_t events = 0;
    std::uint64_t firstReported = 0;  ///< When the first event was.
    bool isUrgent = false;
    std::uint64_t flush = 0;  ///< Number of the flush to be made behind these events; 0 for none.

    std::span<std::uint8_t> packed() const { return {buffer.get(), bytes}; }
};

/// What waits for a reporter's thread, bounded, and the count of what became of it. Parcels that were taken
/// count as waiting until they are settled. Thread-safe.
class ReportQueue {
  public:
    /// A parcel is closed once it has so many bytes: as many events as make up for the cost of a call.
    static constexpr std::size_t kParcelBytes = 60u << 10;
    /// How long an event waits for company, in microseconds.
    static constexpr std::uint64_t kCompanyTime = 20'000;

    ReportQueue(std::size_t mostEvents, std::size_t mostBytes);

    // The program's side. Where `wakes` comes to be true, the reporter's thread is to be woken.

    /// Whether the event is queued.
    bool push(const EventView& event, bool& wakes);
    void pushUserInfo(std::optional<Dictionary> userInfo, bool& wakes);
    /// The number of the flush.
    std::uint64_t pushFlush(bool& wakes);
    /// Success when the flush is done; an error when the deadline has passed or the queue is closed.
    Status waitForFlush(std::uint64_t number, const Deadline& deadline);
    ReporterStatistics statistics() const;

    // The reporter's side.

    /// The next parcel that is due at the time, of elapsedMicroseconds(), or any when all are due. If there
    /// is none, the thread is woken once one is due or may come to be.
    std::optional<Parcel> takeDue(std::uint64_t now, bool allDue);
    /// When the next parcel is due; UINT64_MAX when none waits.
    std::uint64_t nextDue() const;
    bool isEmpty() const;
    /// Puts a flush, which was taken already, back in front.
    void putBackFlush(std::uint64_t number);

    void countSession();
    /// The parcel's events are done with: so many were taken, the others dropped for that reason.
    void settle(Parcel parcel, std::uint32_t taken, std::uint64_t ReporterStatistics::*dropped);
    void finishFlush(std::uint64_t number);
    /// Drops all that waits, and from now on every event.
    void close();

  private:
    /// What the reporter's thread wants to be woken for. Nothing while it takes nothing, or is awake.
    enum class Interest {
        Nothing,
        Due,       ///< A parcel that is due.
        Anything,  ///< Also an event that waits for company.
    };

    Parcel& parcelFor(std::size_t eventBytes) REQUIRES(_mutex);
    Parcel& lastWithoutEvents() REQUIRES(_mutex);
    bool isDue(const Parcel& first, std::uint64_t now) const REQUIRES(_mutex);
    bool wakesFor(bool due) REQUIRES(_mutex);
    bool drop(std::uint64_t ReporterStatistics::*reason) REQUIRES(_mutex);

    const std::size_t _mostEvents;
    const std::size_t _mostBytes;

    mutable platform::Mutex _mutex;
    std::condition_variable_any _flushed;
    std::deque<Parcel> _parcels GUARDED_BY(_mutex);
    std::vector<std::unique_ptr<std::uint8_t[]>> _spare GUARDED_BY(_mutex);  ///< Of the usual size.
    std::size_t _bytes GUARDED_BY(_mutex) = 0;
    ReporterStatistics _statistics GUARDED_BY(_mutex);
    Interest _interest GUARDED_BY(_mutex) = Interest::Nothing;
    std::uint64_t _lastFlush GUARDED_BY(_mutex) = 0;
    std::uint64_t _flushesDone GUARDED_BY(_mutex) = 0;
    bool _closed GUARDED_BY(_mutex) = false;
};

}  // namespace quorvane::client
