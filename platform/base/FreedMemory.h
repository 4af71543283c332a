#pragma once

#include <functional>

namespace quorvane::platform {

/// Tells that much memory was freed or is about to be, so that it is given back to the system soon: by
/// itself, the allocator keeps most of what a burst took. From any thread, cheap; without a listener it does
/// nothing.
void memoryIsFreed();

/// Who hears of it, on the thread that tells. Null for nobody. Only while no other thread tells.
void setMemoryListener(std::function<void()> listener);

}  // namespace quorvane::platform
