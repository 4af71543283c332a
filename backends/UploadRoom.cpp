#include "backends/UploadRoom.h"

namespace quorvane {

void UploadRoom::Share::shrinkTo(std::size_t bytes) {
    if (bytes >= _bytes) return;
    _room->leave(_bytes - bytes);
    _bytes = bytes;
}

std::optional<UploadRoom::Share> UploadRoom::enter(std::size_t bytes, std::chrono::milliseconds patience) {
    std::unique_lock lock(_mutex);
    const std::uint64_t ticket = ++_lastTicket;
    _waiting.push_back(ticket);
    const bool entered =
        _changed.wait_for(lock, patience, [&] { return _waiting.front() == ticket && fits(bytes); });
    std::erase(_waiting, ticket);
    _changed.notify_all();
    if (!entered) return std::nullopt;
    _taken += bytes;
    return std::optional<Share>(std::in_place, *this, bytes);
}

bool UploadRoom::fits(std::size_t bytes) const {
    return _taken == 0 || (bytes <= _bytes && _taken <= _bytes - bytes);
}

void UploadRoom::leave(std::size_t bytes) {
    const std::lock_guard lock(_mutex);
    _taken -= bytes;
    _changed.notify_all();
}

}  // namespace quorvane
