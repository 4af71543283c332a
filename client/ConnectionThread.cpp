#include "client/Connection.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace quorvane::client {

using platform::MutexLock;

namespace {

/// How many messages one pass handles before it releases the lock to callers.
constexpr int kMessagesAtATime = 64;

/// While nobody waits for an answer, answers are read together that come within so many microseconds.
constexpr std::uint64_t kPause = 100;

/// The connection whose thread this is; null on every other thread.
thread_local const Connection* t_serves = nullptr;

}  // namespace

bool Connection::isOwnThread() const {
    return t_serves == this;
}

void Connection::deliverLater(CallbackQueue::Callback callback) {
    _readyBytes += callback.bytes;
    _ready.push_back(std::move(callback));
}

bool Connection::isOverfull() const {
    return _callbacks->waitingBytes() + _readyBytes >= 2 * CallbackQueue::kBoundBytes;
}

void Connection::run() {
    t_serves = this;
    for (;;) {
        const Next next = process();
        _readyBytes = 0;
        if (!_ready.empty()) _callbacks->deliver(std::exchange(_ready, {}));
        if (next.over) return;
        // A callback wakes this thread when the queue falls below its bound. One that finished before
        // deliver() had added the new callbacks did not, so look again before sleeping without reading.
        const bool hasRoomAgain = !next.awaited.reading && !next.awaited.paused &&
                                  _callbacks->waitingBytes() < CallbackQueue::kBoundBytes;
        if (!next.more && !hasRoomAgain) waitFor(next.awaited);
    }
}

Connection::Next Connection::process() {
    const MutexLock lock(_mutex);
    // sd_bus_process() reads, writes what is queued and expires calls, all in one. So it runs once even while
    // a full callback queue stops the reading: otherwise nothing would be sent and no time-out would come
    // true.
    int processed = 1;
    int handled = 0;
    while (handled < kMessagesAtATime && processed > 0 && !_stopping && (handled == 0 || mayRead())) {
        processed = ::sd_bus_process(_bus, nullptr);
        if (processed > 0) ++handled;
    }
    if (_stopping)
        end({ErrorCode::Disconnected, "the client was closed"});
    else if (processed < 0)
        lose(processed);
    expireEventCalls();
    wakeWaiters();

    awaitNext(handled > 0 && processed == 0);
    return {_lost.has_value(), processed > 0 && _awaited.reading, _awaited};
}

void Connection::awaitNext(bool readAll) {
    const int events = ::sd_bus_get_events(_bus);
    _awaited.writing = events > 0 && (events & POLLOUT) != 0;
    _awaited.paused = readAll && !_calls.empty() && !waitsForAnswer();
    _awaited.reading = mayRead() && !_awaited.paused;
    const std::uint64_t until = nextExpiry();
    // A time that was set earlier stays, also when its call is answered: the next call need not wake this
    // thread to set one.
    const bool isPast = microsecondsUntilPoint(_awaited.until) == 0;
    _awaited.until = isPast ? until : std::min(until, _awaited.until);
}

void Connection::lose(int error) {
    const std::string why = error == -ECONNRESET ? "the daemon closed it" : std::strerror(-error);
    end({ErrorCode::Disconnected, "the connection is lost: " + why});
    if (_disconnected)
        deliverLater({[handler = std::move(_disconnected), lost = *_lost] { handler(lost); }, 0});
}

void Connection::end(Error error) {
    _lost = std::move(error);
    while (!_calls.empty()) finish(*_calls.front(), *_lost);
}

void Connection::waitFor(const Awaited& awaited) const {
    const auto events = static_cast<short>((awaited.reading ? POLLIN : 0) | (awaited.writing ? POLLOUT : 0));
    pollfd descriptors[] = {{_socket.get(), events, 0}, {_wake->get(), POLLIN, 0}};
    const std::uint64_t longest = awaited.paused ? kPause : UINT64_MAX;
    const std::optional<timespec> limit =
        timespecOf(std::min(longest, microsecondsUntilPoint(awaited.until)));
    ::ppoll(descriptors, 2, limit ? &*limit : nullptr, nullptr);
    eventfd_t count = 0;
    if (descriptors[1].revents != 0) ::eventfd_read(_wake->get(), &count);
}

bool Connection::mayRead() const {
    return _blocked > 0 || _callbacks->waitingBytes() + _readyBytes < CallbackQueue::kBoundBytes;
}

bool Connection::hasQueuedWrites() const {
    std::uint64_t count = 0;
    return ::sd_bus_get_n_queued_write(_bus, &count) >= 0 && count > 0;
}

void Connection::wakeIfNeeded() const {
    const bool readsTooLate = _awaited.paused ? waitsForAnswer() : !_awaited.reading && _blocked > 0;
    if (nextExpiry() < _awaited.until || (!_awaited.writing && hasQueuedWrites()) || readsTooLate) wake();
}

void Connection::wake() const {
    ::eventfd_write(_wake->get(), 1);
}

void Connection::close(Timeout limit) {
    const Deadline deadline = deadlineAfter(limit);
    {
        const MutexLock lock(_mutex);
        ++_roomWaiters;
        const auto written = [this]() REQUIRES(_mutex) { return _lost || !hasQueuedWrites(); };
        if (deadline)
            _roomChanged.wait_until(_mutex, *deadline, written);
        else
            _roomChanged.wait(_mutex, written);
        --_roomWaiters;
        _stopping = true;
        wake();
    }
    if (_thread.joinable()) _thread.join();
    _callbacks->close();
    drainUntil(deadline);
    const MutexLock lock(_mutex);
    _bus = ::sd_bus_close_unref(_bus);
}

void Connection::drainUntil(const Deadline& deadline) const {
    // If the socket closed now, the daemon's next answer would fail with EPIPE and it would drop the calls
    // that it has not read yet. So stop sending, and discard answers until the daemon closes its end.
    if (::shutdown(_socket.get(), SHUT_WR) != 0) return;
    char ignored[4096];
    for (;;) {
        pollfd descriptor{_socket.get(), POLLIN, 0};
        if (::poll(&descriptor, 1, millisecondsUntil(deadline)) == 0) return;
        const ssize_t size = ::recv(_socket.get(), ignored, sizeof ignored, MSG_DONTWAIT);
        if (size == 0 || (size < 0 && errno != EAGAIN && errno != EINTR)) return;
    }
}

}  // namespace quorvane::client
