#include "platform/base/Thread.h"

#include <pthread.h>

#include <csignal>
#include <system_error>
#include <utility>

namespace quorvane::platform {

std::optional<std::thread> startThread(const char* name, std::function<void()> function) {
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    std::optional<std::thread> thread;
    try {
        thread.emplace(std::move(function));
        ::pthread_setname_np(thread->native_handle(), name);
    } catch (const std::system_error&) {
        thread.reset();
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
}

}  // namespace quorvane::platform
