#include "platform/base/MemoryBudget.h"

#include <malloc.h>

namespace quorvane::platform {

namespace {

/// So many bytes are worth giving back to the system when they are free again.
constexpr std::size_t kLargeBytes = 4u << 20;

}  // namespace

void MemoryBudget::Reservation::shrinkTo(std::size_t bytes) {
    if (bytes >= _bytes) return;
    _budget->release(_bytes - bytes);
    _bytes = bytes;
}

std::optional<MemoryBudget::Reservation> MemoryBudget::acquire(
    std::size_t bytes, std::optional<std::chrono::milliseconds> patience) {
    const auto start = std::chrono::steady_clock::now();
    const MutexLock lock(_mutex);
    const std::uint64_t ticket = ++_lastTicket;
    _waiting.push_back(ticket);
    bool inTime = true;
    while (inTime && !isTurn(ticket, bytes)) {
        if (patience)
            inTime = _changed.wait_until(_mutex, start + *patience) == std::cv_status::no_timeout;
        else
            _changed.wait(_mutex);
    }
    const bool entered = isTurn(ticket, bytes);
    std::erase(_waiting, ticket);
    if (!_waiting.empty()) _changed.notify_all();
    if (!entered) return std::nullopt;
    _taken += bytes;
    _wasLarge = _wasLarge || _taken >= kLargeBytes;
    return std::optional<Reservation>(std::in_place, *this, bytes);
}

bool MemoryBudget::isTurn(std::uint64_t ticket, std::size_t bytes) const {
    if (_waiting.front() != ticket) return false;
    return _taken == 0 || (bytes <= _bytes && _taken <= _bytes - bytes);
}

void MemoryBudget::release(std::size_t bytes) {
    bool largeOneIsGone = false;
    {
        const MutexLock lock(_mutex);
        _taken -= bytes;
        if (_taken == 0) largeOneIsGone = std::exchange(_wasLarge, false);
        _changed.notify_all();
    }
    if (largeOneIsGone) ::malloc_trim(0);
}

void MemoryBudget::setBytes(std::size_t bytes) {
    const MutexLock lock(_mutex);
    _bytes = bytes;
    _changed.notify_all();
}

}  // namespace quorvane::platform
