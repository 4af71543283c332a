#pragma once

#include <functional>
#include <optional>
#include <thread>

namespace quorvane::platform {

/// What ps -L, debuggers and the log on standard error call the calling thread.
///   name  of which the first 15 bytes count
void nameThisThread(const char* name);

/// Starts a thread that takes none of the program's signals; nothing when the system has none to give.
///   name  as in nameThisThread(); outlives the thread's start, so use a literal
std::optional<std::thread> startThread(const char* name, std::function<void()> function);

}  // namespace quorvane::platform
