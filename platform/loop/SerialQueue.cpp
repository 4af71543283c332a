#include "platform/loop/SerialQueue.h"

#include "platform/loop/EventThread.h"
#include "platform/loop/RunLoop.h"

#include <future>
#include <utility>

namespace quorvane::platform {

namespace {

std::unique_ptr<EventSource> labelled(std::unique_ptr<EventSource> source, const char* label) {
    if (source != nullptr) source->setLabel(label);
    return source;
}

}  // namespace

std::optional<SerialQueue> SerialQueue::initWithLabel(const char* label) {
    RunLoop* loop = eventLoop();
    if (loop == nullptr) return std::nullopt;
    return SerialQueue(*loop, label);
}

void SerialQueue::post(Handler handler) const {
    _loop->post(std::move(handler));
}

void SerialQueue::postAfter(std::chrono::milliseconds delay, Handler handler) const {
    _loop->post([loop = _loop, delay, handler = std::move(handler)]() mutable {
        loop->addTimer(delay, std::move(handler));
    });
}

void SerialQueue::perform(const Handler& handler) const {
    if (onEventThread()) {
        handler();
        return;
    }
    // Shared: the waiting thread may be gone before the event thread has left set_value.
    const auto done = std::make_shared<std::promise<void>>();
    _loop->post([done, &handler] {
        handler();
        done->set_value();
    });
    done->get_future().wait();
}

std::unique_ptr<EventSource> SerialQueue::makeTimer(std::chrono::milliseconds period,
                                                    std::chrono::milliseconds leeway, Handler handler) const {
    return labelled(EventSource::timer(_loop->event(), period, leeway, std::move(handler)), _label);
}

std::unique_ptr<EventSource> SerialQueue::makeReadSource(int descriptor, Handler handler) const {
    return labelled(EventSource::readable(_loop->event(), descriptor, std::move(handler)), _label);
}

}  // namespace quorvane::platform
