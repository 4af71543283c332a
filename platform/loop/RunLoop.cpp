#include "platform/loop/RunLoop.h"

#include "platform/base/ThreadAnnotations.h"
#include "platform/base/UniqueDescriptor.h"

#include <signal.h>
#include <sys/eventfd.h>

#include <utility>
#include <vector>

namespace quorvane::platform {

struct RunLoop::Posted {
    Mutex mutex;
    std::vector<Handler> handlers GUARDED_BY(mutex);
    UniqueDescriptor wake;
};

std::unique_ptr<RunLoop> RunLoop::init(Watchdog watchdog) {
    std::unique_ptr<RunLoop> loop(new RunLoop);
    if (::sd_event_new(&loop->_event) < 0) return nullptr;
    if (watchdog == Watchdog::Answered) ::sd_event_set_watchdog(loop->_event, 1);
    // The first timer makes the descriptor of all, which might not be had later.
    if (EventSource::once(loop->_event, std::chrono::hours(1), [] {}) == nullptr) return nullptr;
    loop->_posted = std::make_unique<Posted>();
    loop->_posted->wake.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    RunLoop* self = loop.get();
    // The loop's first timer takes a descriptor for its clock. Later ones, such as that which waits until
    // there are descriptors again, take none.
    if (!loop->addTimer(std::chrono::milliseconds(0), [] {})) return nullptr;
    if (!loop->_posted->wake ||
        !loop->addReadSource(loop->_posted->wake.get(), [self] { self->runPosted(); }))
        return nullptr;
    return loop;
}

RunLoop::~RunLoop() {
    _sources.clear();
    ::sd_event_unref(_event);
}

bool RunLoop::keep(std::unique_ptr<EventSource> source, int descriptor) {
    if (source == nullptr) return false;
    _sources.push_back({descriptor, std::move(source)});
    return true;
}

bool RunLoop::addReadSource(int descriptor, Handler handler) {
    return keep(EventSource::readable(_event, descriptor, std::move(handler)), descriptor);
}

void RunLoop::setReadSourceEnabled(int descriptor, bool enabled) {
    for (const Source& source : _sources)
        if (source.descriptor == descriptor) source.source->setEnabled(enabled);
}

bool RunLoop::addSignal(int signalNumber, Handler handler) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, signalNumber);
    if (::pthread_sigmask(SIG_BLOCK, &signals, nullptr) != 0) return false;
    return keep(EventSource::signal(_event, signalNumber, std::move(handler)));
}

bool RunLoop::addTimer(std::chrono::milliseconds delay, Handler handler) {
    const auto place = _sources.emplace(_sources.end());
    place->source = EventSource::once(_event, delay, [this, place, handler = std::move(handler)] {
        _sources.erase(place);
        handler();
    });
    if (place->source != nullptr) return true;
    _sources.erase(place);
    return false;
}

void RunLoop::post(Handler handler) {
    {
        const MutexLock lock(_posted->mutex);
        _posted->handlers.push_back(std::move(handler));
        if (_posted->handlers.size() > 1) return;  // The loop was woken for the first.
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
