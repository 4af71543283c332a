#include "client/ReportQueue.h"

#include "framework/EventPacking.h"

#include <algorithm>
#include <ctime>
#include <new>
#include <utility>

namespace quorvane::client {

using platform::MutexLock;

namespace {

/// D-Bus allows an array twice as much.
constexpr std::size_t kLargestEvent = 32u << 20;

/// As many as are on their way at a time.
constexpr std::size_t kSpareBuffers = 4;

std::unique_ptr<std::uint8_t[]> newBuffer(std::size_t bytes) {
    return std::make_unique_for_overwrite<std::uint8_t[]>(bytes);
}

}  // namespace

std::uint64_t elapsedMicroseconds() {
    timespec now{};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000 +
           static_cast<std::uint64_t>(now.tv_nsec) / 1000;
}

ReportQueue::ReportQueue(std::size_t mostEvents, std::size_t mostBytes)
    : _mostEvents(mostEvents), _mostBytes(mostBytes) {
    _spare.reserve(kSpareBuffers);
}

// The program's side.

bool ReportQueue::push(const EventView& event, bool& wakes) {
    const std::optional<std::size_t> size = packedSize(event.payload);
    const std::uint64_t now = elapsedMicroseconds();
    const MutexLock lock(_mutex);
    ++_statistics.reported;
    if (_closed) return drop(&ReporterStatistics::droppedAtEnd);
    if (!size) return drop(&ReporterStatistics::droppedUnsendable);
    if (*size > std::min(_mostBytes, kLargestEvent)) return drop(&ReporterStatistics::droppedTooLarge);
    if (_statistics.waiting >= _mostEvents || *size > _mostBytes - _bytes)
        return drop(&ReporterStatistics::droppedFull);
    try {
        Parcel& parcel = parcelFor(*size);
        packEvent(parcel.buffer.get() + parcel.bytes, *size, event.category, event.type, event.flag, now,
                  event.payload);
        if (parcel.events++ == 0) parcel.firstReported = now;
        parcel.bytes += *size;
        parcel.isUrgent = parcel.isUrgent || (event.flag & kFlagSendNow) != 0;
    } catch (const std::bad_alloc&) {
        return drop(&ReporterStatistics::droppedFull);
    }
    ++_statistics.waiting;
    _bytes += *size;
    wakes = wakesFor(isDue(_parcels.front(), now));
    return true;
}

/// The last parcel, or a new one, with room for an event of so many bytes.
Parcel& ReportQueue::parcelFor(std::size_t eventBytes) {
    if (_parcels.empty() || _parcels.back().flush != 0 ||
        (_parcels.back().events > 0 && eventBytes > _parcels.back().capacity - _parcels.back().bytes))
        _parcels.emplace_back();
    Parcel& parcel = _parcels.back();
    if (parcel.buffer != nullptr) return parcel;
    parcel.capacity = std::max(eventBytes, kParcelBytes);
    if (parcel.capacity == kParcelBytes && !_spare.empty()) {
        parcel.buffer = std::move(_spare.back());
        _spare.pop_back();
    } else {
        parcel.buffer = newBuffer(parcel.capacity);
    }
    return parcel;
}

bool ReportQueue::drop(std::uint64_t ReporterStatistics::*reason) {
    ++(_statistics.*reason);
    return false;
}

void ReportQueue::pushUserInfo(std::optional<Dictionary> userInfo, bool& wakes) {
    const MutexLock lock(_mutex);
    if (_closed) return;
    lastWithoutEvents().userInfo = std::move(userInfo);
    wakes = wakesFor(true);
}

std::uint64_t ReportQueue::pushFlush(bool& wakes) {
    const MutexLock lock(_mutex);
    const std::uint64_t number = ++_lastFlush;
    if (_closed) return number;
    if (_parcels.empty()) _parcels.emplace_back();
    _parcels.back().flush = number;
    wakes = wakesFor(true);
    return number;
}

/// What changes between two events is told once, so that changes without events do not pile up.
Parcel& ReportQueue::lastWithoutEvents() {
    if (_parcels.empty() || _parcels.back().events > 0) _parcels.emplace_back();
    return _parcels.back();
}

bool ReportQueue::wakesFor(bool due) {
    if (_interest == Interest::Nothing || (_interest == Interest::Due && !due)) return false;
    _interest = Interest::Nothing;
    return true;
}

Status ReportQueue::waitForFlush(std::uint64_t number, const Deadline& deadline) {
    const MutexLock lock(_mutex);
    while (_flushesDone < number && !_closed) {
        if (!deadline)
            _flushed.wait(_mutex);
        else if (_flushed.wait_until(_mutex, *deadline) == std::cv_status::timeout)
            break;
    }
    if (_flushesDone >= number) return std::monostate{};
    if (_closed) return Error{ErrorCode::Disconnected, "the reporter is closed"};
    return Error{ErrorCode::TimedOut, "the daemon did not take all events in time"};
}

ReporterStatistics ReportQueue::statistics() const {
    const MutexLock lock(_mutex);
    return _statistics;
}

// The reporter's side.

std::optional<Parcel> ReportQueue::takeDue(std::uint64_t now, bool allDue) {
    const MutexLock lock(_mutex);
    if (_parcels.empty() || !(allDue || isDue(_parcels.front(), now))) {
        _interest = _parcels.empty() ? Interest::Anything : Interest::Due;
        return std::nullopt;
    }
    _interest = Interest::Nothing;
    Parcel taken = std::move(_parcels.front());
    _parcels.pop_front();
    return taken;
}

bool ReportQueue::isDue(const Parcel& first, std::uint64_t now) const {
    const bool isFull = _parcels.size() > 1 || first.bytes >= kParcelBytes;
    return isFull || first.isUrgent || first.flush != 0 || first.events == 0 ||
           now >= first.firstReported + kCompanyTime;
}

std::uint64_t ReportQueue::nextDue() const {
    const MutexLock lock(_mutex);
    return _parcels.empty() ? UINT64_MAX : _parcels.front().firstReported + kCompanyTime;
}

bool ReportQueue::isEmpty() const {
    const MutexLock lock(_mutex);
    return _parcels.empty();
}

void ReportQueue::putBackFlush(std::uint64_t number) {
    const MutexLock lock(_mutex);
    if (_closed) return;
    if (_parcels.empty() || _parcels.front().events > 0) _parcels.emplace_front();
    _parcels.front().flush = std::max(_parcels.front().flush, number);
}

void ReportQueue::countSession() {
    const MutexLock lock(_mutex);
    ++_statistics.sessions;
}

void ReportQueue::settle(Parcel parcel, std::uint32_t taken, std::uint64_t ReporterStatistics::*dropped) {
    const MutexLock lock(_mutex);
    taken = std::min(taken, parcel.events);
    _statistics.waiting -= parcel.events;
    _statistics.taken += taken;
    _statistics.*dropped += parcel.events - taken;
    _bytes -= parcel.bytes;
    if (parcel.capacity == kParcelBytes && _spare.size() < kSpareBuffers)
        _spare.push_back(std::move(parcel.buffer));
}

void ReportQueue::finishFlush(std::uint64_t number) {
    const MutexLock lock(_mutex);
    _flushesDone = std::max(_flushesDone, number);
    _flushed.notify_all();
}

void ReportQueue::close() {
    const MutexLock lock(_mutex);
    _closed = true;
    for (const Parcel& parcel : _parcels) {
        _statistics.waiting -= parcel.events;
        _statistics.droppedAtEnd += parcel.events;
        _bytes -= parcel.bytes;
    }
    _parcels.clear();
    _flushed.notify_all();
}

}  // namespace quorvane::client
