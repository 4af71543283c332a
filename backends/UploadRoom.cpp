#include "backends/UploadRoom.h"

#include "platform/http/HttpSession.h"
#include "platform/value/Url.h"

#include <chrono>

namespace quorvane {

namespace {

using platform::MemoryBudget;

constexpr std::size_t kMiB = 1u << 20;
/// Up to here something is small.
constexpr std::size_t kSmallBytes = 16 * kMiB;
/// A client whose file system stalls holds its room; the others must not wait for ever.
constexpr std::chrono::minutes kPatience{10};

// Neither ends before the process does: uploads may still run then.

MemoryBudget& smallRoom() {
    static auto* const shared = new MemoryBudget({.each = 64 * kMiB, .inAll = 128 * kMiB, .share = 1 * kMiB});
    return *shared;
}

MemoryBudget& largeRoom() {
    static auto* const shared = new MemoryBudget({.each = 64 * kMiB, .inAll = 256 * kMiB});
    return *shared;
}

}  // namespace

std::optional<MemoryBudget::Reservation> uploadRoom(const std::string& url, std::size_t bytes) {
    MemoryBudget& room = bytes <= kSmallBytes ? smallRoom() : largeRoom();
    return room.acquire(platform::serverOfUrl(url), bytes, {.standstill = kPatience, .inAll = kPatience});
}

void cancelTransfers() {
    smallRoom().endWaits();
    largeRoom().endWaits();
    platform::cancelAwaitedDataTasks();
}

}  // namespace quorvane
