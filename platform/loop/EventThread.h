#pragma once

#include "platform/loop/RunLoop.h"

namespace quorvane::platform {

/// The run loop of the one thread that every serial queue runs on. The thread starts at the first call, with
/// all signals blocked, and lives as long as the process. Null when the kernel refuses. Thread-safe.
RunLoop* eventLoop();

bool onEventThread();

}  // namespace quorvane::platform
