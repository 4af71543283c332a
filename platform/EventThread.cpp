#include "platform/EventThread.h"

#include "platform/ThreadAnnotations.h"

#include <pthread.h>
#include <signal.h>

#include <memory>
#include <system_error>
#include <thread>

namespace quorvane::platform {

namespace {

thread_local bool isEventThread = false;

void serve(RunLoop& loop) {
    ::pthread_setname_np(::pthread_self(), "quorvane-events");
    isEventThread = true;
    loop.run();
}

bool startThread(RunLoop& loop) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    bool started = true;
    try {
        std::thread([&loop] { serve(loop); }).detach();
    } catch (const std::system_error&) {
        started = false;
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return started;
}

/// The thread never ends, so the loop is never freed.
RunLoop* start() {
    auto loop = RunLoop::init(RunLoop::Watchdog::Ignored);
    if (loop == nullptr || !startThread(*loop)) return nullptr;
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
