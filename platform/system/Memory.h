#pragma once

#include "platform/loop/RunLoop.h"

#include <atomic>
#include <memory>

namespace quorvane::platform {

/// Sets the allocator up for a process of many threads that serves bursts. Call before any other thread
/// starts.
void setUpAllocator();

/// Gives freed memory back to the system, once a burst of it is over: two seconds after it was first told
/// (FreedMemory.h).
class MemoryReclaimer {
  public:
    /// Null when the loop refuses. Belongs to the loop's thread, and the loop must outlive it.
    static std::unique_ptr<MemoryReclaimer> init(RunLoop& loop);
    ~MemoryReclaimer();
    MemoryReclaimer(const MemoryReclaimer&) = delete;
    MemoryReclaimer& operator=(const MemoryReclaimer&) = delete;

  private:
    MemoryReclaimer() = default;
    void reclaim();

    /// Made at the start: when descriptors have run out, none can be made.
    std::unique_ptr<EventSource> _timer;
    std::atomic<bool> _isTold = false;
};

}  // namespace quorvane::platform
