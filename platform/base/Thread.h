#pragma once

#include <functional>
#include <optional>
#include <thread>

namespace quorvane::platform {

/// Starts a thread that takes none of the program's signals; nothing when the system has none to give.
///   name  at most 15 bytes
std::optional<std::thread> startThread(const char* name, std::function<void()> function);

}  // namespace quorvane::platform
