#include "client/CallbackQueue.h"

#include "platform/base/Thread.h"

#include <sys/eventfd.h>

#include <cassert>
#include <utility>

namespace quorvane::client {

using platform::MutexLock;

namespace {

/// A callback that runs on this thread, and the one that it was called from: a callback may run an event loop
/// that runs further callbacks.
struct Frame {
    const CallbackQueue* delivery;
    const Frame* outer;
};
thread_local const Frame* t_innermost = nullptr;

std::size_t framesOf(const CallbackQueue* delivery) {
    std::size_t count = 0;
    for (const Frame* frame = t_innermost; frame != nullptr; frame = frame->outer)
        if (frame->delivery == delivery) ++count;
    return count;
}

}  // namespace

std::shared_ptr<CallbackQueue> CallbackQueue::create(Executor executor,
                                                     std::shared_ptr<platform::UniqueDescriptor> wake) {
    return std::shared_ptr<CallbackQueue>(new CallbackQueue(std::move(executor), std::move(wake)));
}

CallbackQueue::CallbackQueue(Executor executor, std::shared_ptr<platform::UniqueDescriptor> wake)
    : _executor(std::move(executor)), _wake(std::move(wake)) {}

CallbackQueue::~CallbackQueue() = default;

void CallbackQueue::deliver(std::vector<Callback> callbacks) {
    for (Callback& callback : callbacks) {
        {
            const MutexLock lock(_mutex);
            if (_closed) return;
            _waitingBytes += callback.bytes;
            if (!_executor) {
                _waiting.push_back(std::move(callback));
                continue;
            }
        }
        _executor([self = shared_from_this(), shared = std::make_shared<Callback>(std::move(callback))] {
            self->run(std::move(*shared));
        });
    }
    if (_executor || callbacks.empty()) return;
    if (startThread()) _changed.notify_all();
}

bool CallbackQueue::startThread() {
    {
        const MutexLock lock(_mutex);
        if (std::exchange(_hasThread, true)) return true;
    }
    // The thread holds a reference: a callback may destroy the client, which drops all others.
    auto thread =
        platform::startThread("quorvane-calls", [self = shared_from_this()] { self->runWaiting(); });
    if (thread) {
        thread->detach();
        return true;
    }
    const MutexLock lock(_mutex);
    _hasThread = false;  // The next callback tries again; until then the queue's bound holds.
    return false;
}

void CallbackQueue::runWaiting() {
    for (;;) {
        Callback callback;
        {
            const MutexLock lock(_mutex);
            while (_waiting.empty() && !_closed) _changed.wait(_mutex);
            if (_closed) return;
            callback = std::move(_waiting.front());
            _waiting.pop_front();
        }
        run(std::move(callback));
    }
}

void CallbackQueue::run(Callback callback) {
    {
        const MutexLock lock(_mutex);
        if (_closed) return;
        ++_running;
    }
    const Frame frame{this, t_innermost};
    t_innermost = &frame;
    callback.function();
    callback.function = nullptr;
    t_innermost = frame.outer;

    const MutexLock lock(_mutex);
    assert(_running > 0 && "close() would wait for ever, or not at all");
    --_running;
    if (_closed) _changed.notify_all();
    const bool wasFull = _waitingBytes >= kBoundBytes;
    assert(_waitingBytes >= callback.bytes && "below zero the queue would look full for ever");
    _waitingBytes -= callback.bytes;
    if (wasFull && _waitingBytes < kBoundBytes) ::eventfd_write(_wake->get(), 1);
}

void CallbackQueue::close() {
    std::deque<Callback> dropped;
    const MutexLock lock(_mutex);
    _closed = true;
    dropped.swap(_waiting);
    _changed.notify_all();
    const std::size_t own = framesOf(this);
    assert(_running >= own && "each frame on this thread is a callback that runs");
    while (_running > own) _changed.wait(_mutex);
}

std::size_t CallbackQueue::waitingBytes() const {
    const MutexLock lock(_mutex);
    return _waitingBytes;
}

}  // namespace quorvane::client
