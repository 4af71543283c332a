#pragma once

#include <functional>

namespace quorvane::platform {

/// Tells that much memory has been freed, or will be within the second, so that it is given back to the
/// system: the allocator keeps what a burst took. From any thread; costs little and nothing in a process in
/// which nobody gives memory back.
void memoryIsFreed();

/// Who hears of it, on the thread that tells. Null for nobody. Only while no other thread tells.
void setMemoryListener(std::function<void()> listener);

}  // namespace quorvane::platform
