#include "platform/loop/EventSource.h"

#include <sys/epoll.h>

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <utility>

namespace quorvane::platform {

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

/// sd-event reads an accuracy of 0 as its default of 250 ms.
std::uint64_t accuracy(microseconds leeway) {
    return static_cast<std::uint64_t>(std::max<std::int64_t>(leeway.count(), 1));
}

std::uint64_t count(microseconds time) {
    return static_cast<std::uint64_t>(std::max<std::int64_t>(time.count(), 0));
}

}  // namespace

EventSource::EventSource(Handler handler) : _handler(std::make_shared<const Handler>(std::move(handler))) {}

EventSource::~EventSource() {
    cancel();
}

std::unique_ptr<EventSource> EventSource::kept(std::unique_ptr<EventSource> source, int result) {
    return result >= 0 ? std::move(source) : nullptr;
}

std::unique_ptr<EventSource> EventSource::readable(sd_event* event, int descriptor, Handler handler) {
    std::unique_ptr<EventSource> source(new EventSource(std::move(handler)));
    const auto callback = [](sd_event_source*, int, std::uint32_t, void* userdata) noexcept {
        static_cast<EventSource*>(userdata)->call();
        return 0;
    };
    const int result =
        ::sd_event_add_io(event, &source->_source, descriptor, EPOLLIN, callback, source.get());
    return kept(std::move(source), result);
}

std::unique_ptr<EventSource> EventSource::signal(sd_event* event, int signalNumber, Handler handler) {
    std::unique_ptr<EventSource> source(new EventSource(std::move(handler)));
    const auto callback = [](sd_event_source*, const struct signalfd_siginfo*, void* userdata) noexcept {
        static_cast<EventSource*>(userdata)->call();
        return 0;
    };
    const int result = ::sd_event_add_signal(event, &source->_source, signalNumber, callback, source.get());
    return kept(std::move(source), result);
}

std::unique_ptr<EventSource> EventSource::once(sd_event* event, milliseconds delay, Handler handler) {
    std::unique_ptr<EventSource> source(new EventSource(std::move(handler)));
    const auto callback = [](sd_event_source*, std::uint64_t, void* userdata) noexcept {
        static_cast<EventSource*>(userdata)->call();
        return 0;
    };
    const int result = ::sd_event_add_time_relative(event, &source->_source, CLOCK_MONOTONIC, count(delay),
                                                    accuracy(milliseconds(1)), callback, source.get());
    return kept(std::move(source), result);
}

std::unique_ptr<EventSource> EventSource::alarm(sd_event* event, Handler handler) {
    auto source = once(event, milliseconds(0), std::move(handler));
    if (source != nullptr) source->setEnabled(false);
    return source;
}

bool EventSource::ringIn(milliseconds delay) {
    return ::sd_event_source_set_time_relative(_source, count(delay)) >= 0 &&
           ::sd_event_source_set_enabled(_source, SD_EVENT_ONESHOT) >= 0;
}

std::unique_ptr<EventSource> EventSource::timer(sd_event* event, milliseconds period, milliseconds leeway,
                                                Handler handler) {
    std::unique_ptr<EventSource> source(new EventSource(std::move(handler)));
    source->_period = std::clamp<milliseconds>(period, milliseconds(1), std::chrono::hours(24 * 365));
    const auto callback = [](sd_event_source*, std::uint64_t, void* userdata) noexcept {
        auto* fired = static_cast<EventSource*>(userdata);
        fired->scheduleNext();
        fired->call();
        return 0;
    };
    const int result =
        ::sd_event_add_time_relative(event, &source->_source, CLOCK_MONOTONIC, count(source->_period),
                                     accuracy(leeway), callback, source.get());
    return kept(std::move(source), result);
}

void EventSource::call() const {
    const std::shared_ptr<const Handler> handler = _handler;
    (*handler)();
}

void EventSource::scheduleNext() {
    std::uint64_t now = 0;
    std::uint64_t next = 0;
    ::sd_event_now(::sd_event_source_get_event(_source), CLOCK_MONOTONIC, &now);
    ::sd_event_source_get_time(_source, &next);
    const std::uint64_t period = count(_period);
    assert(period > 0 && "it divides, and a timer without a period would never let the loop rest");
    next += period;
    if (next <= now) next += (now - next) / period * period + period;
    ::sd_event_source_set_time(_source, next);
    ::sd_event_source_set_enabled(_source, SD_EVENT_ONESHOT);
}

void EventSource::setEnabled(bool enabled) {
    ::sd_event_source_set_enabled(_source, enabled ? SD_EVENT_ON : SD_EVENT_OFF);
}

void EventSource::setLabel(const char* label) {
    ::sd_event_source_set_description(_source, label);
}

void EventSource::cancel() {
    if (_source == nullptr) return;
    _source = ::sd_event_source_disable_unref(_source);
    if (const Handler handler = std::exchange(_cancelHandler, nullptr)) handler();
}

}  // namespace quorvane::platform
