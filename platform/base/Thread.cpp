#include "platform/base/Thread.h"

#include <pthread.h>
#include <sys/prctl.h>

#include <csignal>
#include <system_error>
#include <utility>

namespace quorvane::platform {

void nameThisThread(const char* name) {
    // By its own thread only: naming another one writes to /proc, which the sandbox refuses.
    ::prctl(PR_SET_NAME, name);
}

std::optional<std::thread> startThread(const char* name, std::function<void()> function) {
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    std::optional<std::thread> thread;
    try {
        thread.emplace([name, function = std::move(function)] {
            nameThisThread(name);
            function();
        });
    } catch (const std::system_error&) {
        thread.reset();
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
}

}  // namespace quorvane::platform
