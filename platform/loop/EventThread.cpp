#include "platform/loop/EventThread.h"

#include "platform/base/Thread.h"
#include "platform/base/ThreadAnnotations.h"

#include <memory>

namespace quorvane::platform {

namespace {

thread_local bool isEventThread = false;

void serve(RunLoop& loop) {
    isEventThread = true;
    loop.run();
}

/// The thread never ends, so the loop is never freed.
RunLoop* start() {
    auto loop = RunLoop::init(RunLoop::Watchdog::Ignored);
    if (loop == nullptr) return nullptr;
    auto thread = startThread("quorvane-events", [&loop = *loop] { serve(loop); });
    if (!thread) return nullptr;
    thread->detach();
    return loop.release();
}

}  // namespace

RunLoop* eventLoop() {
    static Mutex mutex;
    static RunLoop* loop = nullptr;
    const MutexLock lock(mutex);
    if (loop == nullptr) loop = start();
    return loop;
}

bool onEventThread() {
    return isEventThread;
}

}  // namespace quorvane::platform
