#include "platform/base/MemoryBudget.h"

#include "platform/base/FreedMemory.h"

#include <algorithm>
#include <cassert>

namespace quorvane::platform {

namespace {

/// So many bytes are worth giving back to the system when they are free again.
constexpr std::size_t kLargeBytes = 4u << 20;

bool isWithin(std::size_t limit, std::size_t taken, std::size_t bytes) {
    return bytes <= limit && taken <= limit - bytes;
}

}  // namespace

void MemoryBudget::Reservation::shrinkTo(std::size_t bytes) {
    assert(_budget != nullptr && "a reservation that was moved from holds nothing to give back");
    if (bytes >= _bytes) return;
    _budget->release(_holder, _bytes - bytes, 0);
    _bytes = bytes;
}

std::optional<MemoryBudget::Reservation> MemoryBudget::acquire(const std::string& name, std::size_t bytes,
                                                               Patience patience) {
    const MutexLock lock(_mutex);
    const auto [entry, isNew] = _holders.try_emplace(name);
    Holder& holder = entry->second;
    if (isNew) holder.lastGivenBack = Clock::now();
    Waiter self{bytes, {}};
    holder.line.push_back(&self);
    const bool entered =
        (!isNew || _holders.size() <= _limits.holders) && waitForTurn(holder, self, patience);
    std::erase(holder.line, &self);
    if (entered) {
        holder.taken += bytes;
        ++holder.reservations;
        _taken += bytes;
        _wasLarge = _wasLarge || _taken >= kLargeBytes;
    }
    wakeNext();
    if (entered) return std::optional<Reservation>(std::in_place, *this, entry, bytes);
    forgetIdle(entry);
    return std::nullopt;
}

bool MemoryBudget::waitForTurn(Holder& holder, Waiter& waiter, Patience patience) {
    const auto start = Clock::now();
    while (!hasTurn(holder, waiter)) {
        const auto end = std::min(start + patience.inAll, holder.lastGivenBack + patience.standstill);
        if (_waitsEnded || Clock::now() >= end) return false;
        waiter.mayEnter.wait_until(_mutex, end);
    }
    return true;
}

bool MemoryBudget::hasTurn(const Holder& holder, const Waiter& waiter) const {
    assert(!holder.line.empty() && "who asks stands in the line until it enters or gives up");
    return holder.line.front() == &waiter && fits(holder, waiter.bytes);
}

bool MemoryBudget::fits(const Holder& holder, std::size_t bytes) const {
    if (_taken == 0 || isWithin(std::min(_limits.share, _limits.each), holder.taken, bytes)) return true;
    return (holder.taken == 0 || isWithin(_limits.each, holder.taken, bytes)) &&
           isWithin(_limits.inAll, _taken, bytes);
}

void MemoryBudget::wakeNext() {
    for (const auto& [name, holder] : _holders)
        if (!holder.line.empty() && hasTurn(holder, *holder.line.front()))
            holder.line.front()->mayEnter.notify_one();
}

void MemoryBudget::forgetIdle(Entry holder) {
    if (holder->second.reservations == 0 && holder->second.line.empty()) _holders.erase(holder);
}

void MemoryBudget::release(Entry holder, std::size_t bytes, std::size_t reservations) {
    bool largeOneIsGone = false;
    {
        const MutexLock lock(_mutex);
        assert(bytes <= holder->second.taken && bytes <= _taken && "below zero nothing would fit any more");
        assert(reservations <= holder->second.reservations && "below zero it would never be forgotten");
        holder->second.taken -= bytes;
        holder->second.reservations -= reservations;
        holder->second.lastGivenBack = Clock::now();
        _taken -= bytes;
        if (_taken == 0) largeOneIsGone = std::exchange(_wasLarge, false);
        wakeNext();
        forgetIdle(holder);
    }
    if (largeOneIsGone) memoryIsFreed();
}

void MemoryBudget::setLimits(Limits limits) {
    const MutexLock lock(_mutex);
    _limits = limits;
    wakeNext();
}

void MemoryBudget::endWaits() {
    const MutexLock lock(_mutex);
    _waitsEnded = true;
    for (const auto& [name, holder] : _holders)
        for (Waiter* waiter : holder.line) waiter->mayEnter.notify_one();
}

}  // namespace quorvane::platform
