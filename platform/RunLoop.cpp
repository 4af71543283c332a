#include "platform/RunLoop.h"

#include "platform/ThreadAnnotations.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <utility>
#include <vector>

namespace quorvane::platform {

struct RunLoop::Posted {
    Mutex mutex;
    std::vector<Handler> handlers GUARDED_BY(mutex);
    UniqueDescriptor wake;
};

std::unique_ptr<RunLoop> RunLoop::init() {
    std::unique_ptr<RunLoop> loop(new RunLoop);
    if (::sd_event_new(&loop->_event) < 0) return nullptr;
    // Answers the launcher's watchdog, where the launcher asks for one.
    ::sd_event_set_watchdog(loop->_event, 1);
    loop->_posted = std::make_unique<Posted>();
    loop->_posted->wake.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    RunLoop* self = loop.get();
    if (!loop->_posted->wake ||
        !loop->addReadSource(loop->_posted->wake.get(), [self] { self->runPosted(); }))
        return nullptr;
    return loop;
}

RunLoop::~RunLoop() {
    for (Source& source : _sources) ::sd_event_source_unref(source.source);
    ::sd_event_unref(_event);
}

RunLoop::Source& RunLoop::newSource(Handler handler) {
    return _sources.emplace_back(Source{nullptr, std::move(handler), this, -1});
}

bool RunLoop::keep(int result, Source& source) {
    if (result >= 0) return true;
    _sources.remove_if([&source](const Source& other) { return &other == &source; });
    return false;
}

bool RunLoop::addReadSource(int descriptor, Handler handler) {
    Source& source = newSource(std::move(handler));
    source.descriptor = descriptor;
    const auto callback = [](sd_event_source*, int, std::uint32_t, void* userdata) {
        static_cast<Source*>(userdata)->handler();
        return 0;
    };
    return keep(::sd_event_add_io(_event, &source.source, descriptor, EPOLLIN, callback, &source), source);
}

void RunLoop::setReadSourceEnabled(int descriptor, bool enabled) {
    for (const Source& source : _sources)
        if (source.descriptor == descriptor)
            ::sd_event_source_set_enabled(source.source, enabled ? SD_EVENT_ON : SD_EVENT_OFF);
}

bool RunLoop::addSignal(int signalNumber, Handler handler) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, signalNumber);
    if (::pthread_sigmask(SIG_BLOCK, &signals, nullptr) != 0) return false;
    Source& source = newSource(std::move(handler));
    const auto callback = [](sd_event_source*, const struct signalfd_siginfo*, void* userdata) {
        static_cast<Source*>(userdata)->handler();
        return 0;
    };
    return keep(::sd_event_add_signal(_event, &source.source, signalNumber, callback, &source), source);
}

bool RunLoop::addTimer(std::chrono::milliseconds delay, Handler handler) {
    Source& source = newSource(std::move(handler));
    const auto callback = [](sd_event_source*, std::uint64_t, void* userdata) {
        auto* fired = static_cast<Source*>(userdata);
        RunLoop* loop = fired->loop;
        const Handler call = std::move(fired->handler);
        ::sd_event_source_unref(fired->source);
        loop->_sources.remove_if([fired](const Source& other) { return &other == fired; });
        call();
        return 0;
    };
    const auto microseconds = static_cast<std::uint64_t>(std::chrono::microseconds(delay).count());
    return keep(::sd_event_add_time_relative(_event, &source.source, CLOCK_MONOTONIC, microseconds, 0,
                                             callback, &source),
                source);
}

void RunLoop::post(Handler handler) {
    {
        const MutexLock lock(_posted->mutex);
        _posted->handlers.push_back(std::move(handler));
    }
    ::eventfd_write(_posted->wake.get(), 1);
}

void RunLoop::runPosted() {
    eventfd_t count = 0;
    ::eventfd_read(_posted->wake.get(), &count);
    std::vector<Handler> handlers;
    {
        const MutexLock lock(_posted->mutex);
        handlers.swap(_posted->handlers);
    }
    for (const Handler& handler : handlers) handler();
}

int RunLoop::run() {
    return ::sd_event_loop(_event);
}

void RunLoop::exit(int status) {
    ::sd_event_exit(_event, status);
}

}  // namespace quorvane::platform
