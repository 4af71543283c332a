#include "platform/base/Log.h"
#include "platform/bus/BusConnection.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace quorvane::platform {

// What waits for a connection's client to read.

namespace {

/// Past either bound the connection's next call waits until its client has read. The bus library bounds its
/// own queue by messages only, and far higher.
constexpr std::uint64_t kQueuedReplies = 256;
constexpr std::size_t kQueuedReplyBytes = 1u << 20;

using Clock = std::chrono::steady_clock;

}  // namespace

/// A bus that may read reads, too.
int BusConnection::writeQueued() {
    if (::dup3(silentSocket(), _busInput, O_CLOEXEC) < 0) return -errno;
    const int result = ::sd_bus_process(_bus, nullptr);
    if (::dup3(_socket, _busInput, O_CLOEXEC) < 0) return -errno;
    return result;
}

/// A client that reads nothing for too long is left, or it would keep its session's place for good.
int BusConnection::drainReplies() {
    std::optional<Clock::time_point> end;
    for (;;) {
        std::uint64_t waiting = 0;
        if (const int result = ::sd_bus_get_n_queued_write(_bus, &waiting); result < 0) return result;
        if (mayKeepReplies(waiting)) return 0;
        if (_ending) return -ECANCELED;
        const auto now = Clock::now();
        if (!end) end = now + _patience;
        if (now >= *end) return leave();
        const int happened = wait(POLLOUT, std::chrono::ceil<std::chrono::milliseconds>(*end - now));
        if (happened < 0) return happened;
        if (happened == 0) continue;
        end.reset();
        if (const int result = writeQueued(); result < 0) return result;
        if (::sd_bus_is_open(_bus) <= 0) return -ECONNRESET;
    }
}

int BusConnection::leave() {
    logWarning("listener: The {} has read nothing for long and is ended", description());
    _vanished = true;
    invalidate();
    return -ECANCELED;
}

/// Whether the client has read so much by then that nothing waits any more.
bool BusConnection::writeAllUntil(Clock::time_point end) {
    for (;;) {
        std::uint64_t waiting = 0;
        if (::sd_bus_is_open(_bus) <= 0 || ::sd_bus_get_n_queued_write(_bus, &waiting) < 0) return false;
        if (waiting == 0) return true;
        const auto now = Clock::now();
        if (now >= end) return false;
        const int happened = wait(POLLOUT, std::chrono::ceil<std::chrono::milliseconds>(end - now));
        if (happened < 0 || writeQueued() < 0) return false;
    }
}

/// What is queued is charged as a whole: it is little, or its client does not read.
bool BusConnection::mayKeepReplies(std::uint64_t waiting) {
    if (waiting == 0) {
        _replyBytes = 0;
        _replyCharge.reset();
        return true;
    }
    if (!_replyCharge) _replyCharge = _account->charge(UserAccount::Slot::Bytes, kQueuedReplyBytes);
    return _replyCharge && waiting < kQueuedReplies && _replyBytes < kQueuedReplyBytes;
}

}  // namespace quorvane::platform
