#include "platform/system/Memory.h"

#include "platform/base/FreedMemory.h"

#include <malloc.h>

#include <chrono>

namespace quorvane::platform {

namespace {

constexpr std::chrono::seconds kDelay{2};

/// With eight arenas a core, each burst of connections leaves its holes in another one.
constexpr int kArenas = 2;
/// What is larger is mapped, and unmapped when it is freed. Unset, glibc raises the bound to 32 MiB as it
/// goes.
constexpr int kMappedBytes = 1 << 20;
/// So much may stay free at the end of the heap, so that steady work does not take and give back all the
/// time.
constexpr int kFreeBytes = 4 << 20;

}  // namespace

void setUpAllocator() {
    ::mallopt(M_ARENA_MAX, kArenas);
    ::mallopt(M_MMAP_THRESHOLD, kMappedBytes);
    ::mallopt(M_TRIM_THRESHOLD, kFreeBytes);
}

std::unique_ptr<MemoryReclaimer> MemoryReclaimer::init(RunLoop& loop) {
    std::unique_ptr<MemoryReclaimer> reclaimer(new MemoryReclaimer);
    MemoryReclaimer* self = reclaimer.get();
    self->_timer = EventSource::alarm(loop.event(), [self] { self->reclaim(); });
    if (self->_timer == nullptr) return nullptr;
    setMemoryListener([self, &loop] {
        if (!self->_isTold.exchange(true)) loop.post([self] { self->_timer->ringIn(kDelay); });
    });
    return reclaimer;
}

MemoryReclaimer::~MemoryReclaimer() {
    setMemoryListener(nullptr);
}

void MemoryReclaimer::reclaim() {
    _isTold = false;
    ::malloc_trim(0);
}

}  // namespace quorvane::platform
