#include "client/ReporterLoop.h"

#include "client/ConnectSocket.h"
#include "client/Serialization.h"
#include "framework/Keys.h"
#include "platform/base/Root.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <utility>

namespace quorvane::client {

namespace {

/// Longest wait for a listener whose backlog is full.
constexpr Timeout kConnectTime = std::chrono::milliseconds(200);

/// The loop that this thread runs; null on every other thread.
thread_local const ReporterLoop* t_runs = nullptr;

std::uint64_t microseconds(std::chrono::milliseconds time) {
    return static_cast<std::uint64_t>(std::chrono::microseconds(time).count());
}

/// The daemon itself waits a quarter of an hour after a storebag that it could not fetch, and logs who asks
/// meanwhile.
constexpr std::chrono::milliseconds kLongestStartPause = std::chrono::minutes(5);

Backoff pauses(const ReporterOptions& options, std::chrono::milliseconds longest) {
    return {microseconds(options.firstRetry), microseconds(longest),
            static_cast<std::minstd_rand::result_type>(elapsedMicroseconds())};
}

}  // namespace

ReporterLoop::ReporterLoop(ReporterOptions options, ReportQueue& queue, platform::UniqueDescriptor wake)
    : _socketPath(options.socketPath.empty() ? platform::rooted(kQuorvaneSocketPath)
                                             : std::move(options.socketPath)),
      _session{sessionInfoDictionary(options.sessionInfo), std::move(options.frameworksToCheck)},
      _stateChanged(std::move(options.stateChanged)),
      _queue(queue),
      _wake(std::move(wake)),
      _userInfo(userInfoDictionary(options.userInfo)),
      _connectPauses(pauses(options, options.longestRetry)),
      _startPauses(pauses(options, kLongestStartPause)) {}

void ReporterLoop::run() {
    t_runs = this;
    for (;;) {
        connectWhenDue();
        serve();
        if (isOver()) break;
        waitForWork();
    }
    _link.reset();
    _queue.close();
}

void ReporterLoop::wake() const {
    ::eventfd_write(_wake.get(), 1);
}

void ReporterLoop::stop(const Deadline& deadline) {
    _end = deadline;
    _stops.store(true, std::memory_order_release);
    wake();
}

bool ReporterLoop::isCurrentThread() const {
    return t_runs == this;
}

/// Someone who wants to end tries once more at once, and then no more.
void ReporterLoop::connectWhenDue() {
    if (_link != nullptr || _gaveUp || (!stops() && elapsedMicroseconds() < _retryAt)) return;
    _gaveUp = stops();
    auto socket = connectSocket(_socketPath, deadlineAfter(kConnectTime));
    if (!socket) return lose(socket.error());
    auto link = ReporterLink::open(*std::move(socket), _queue, _session, _userInfo);
    if (!link) return lose(link.error());
    _link = *std::move(link);
    tell(ReporterState::Connecting);
}

void ReporterLoop::serve() {
    if (_link == nullptr) return;
    if (const Status alive = _link->process(); !alive) return lose(alive.error());
    if (!_link->isReady()) return;
    _connectPauses.reset();
    tell(ReporterState::Connected);
    startAgainWhenDue();
    sendDue();
}

/// A daemon that had no storebag may come to have one, and tells nobody.
void ReporterLoop::startAgainWhenDue() {
    if (_link->backends()) _startPauses.reset();
    if (!_link->lacksStorebag() || stops()) return;
    const std::uint64_t now = elapsedMicroseconds();
    if (_startAt == UINT64_MAX) _startAt = now + _startPauses.next();
    if (now < _startAt) return;
    _startAt = UINT64_MAX;
    _link->startAgain();
}

void ReporterLoop::sendDue() {
    while (_link->takesParcels()) {
        std::optional<Parcel> parcel = _queue.takeDue(elapsedMicroseconds(), stops());
        if (!parcel) return;
        if (parcel->userInfo) _userInfo = *parcel->userInfo;
        _link->send(*std::move(parcel));
    }
}

void ReporterLoop::lose(Error error) {
    _link.reset();
    _retryAt = elapsedMicroseconds() + _connectPauses.next();
    _startAt = UINT64_MAX;
    tell(ReporterState::Disconnected, std::move(error));
}

void ReporterLoop::tell(ReporterState state, std::optional<Error> error) {
    const ReportingStates none;
    const ReportingStates& backends = state == ReporterState::Connected ? _link->backends() : none;
    if (_told.state == state && _told.backends == backends) return;
    _told = {state, backends, std::move(error)};
    if (_stateChanged) _stateChanged(_told);
}

bool ReporterLoop::isOver() const {
    if (!stops()) return false;
    if (_end && std::chrono::steady_clock::now() >= *_end) return true;
    if (_link == nullptr) return _gaveUp || _queue.isEmpty();
    return _queue.isEmpty() && (_link->isIdle() || !_link->isReady());
}

void ReporterLoop::waitForWork() const {
    pollfd descriptors[] = {{_wake.get(), POLLIN, 0}, {-1, 0, 0}};
    if (_link != nullptr) descriptors[1] = {_link->descriptor(), _link->awaitedEvents(), 0};
    const std::optional<timespec> limit = timespecOf(longestWait());
    ::ppoll(descriptors, 2, limit ? &*limit : nullptr, nullptr);
    eventfd_t count = 0;
    if (descriptors[0].revents != 0) ::eventfd_read(_wake.get(), &count);
}

/// In microseconds; UINT64_MAX for ever.
std::uint64_t ReporterLoop::longestWait() const {
    const std::uint64_t now = elapsedMicroseconds();
    const auto until = [now](std::uint64_t time) { return time > now ? time - now : 0; };
    std::uint64_t longest = UINT64_MAX;
    if (_link == nullptr)
        longest = stops() ? 0 : until(_retryAt);
    else
        longest = std::min(_link->longestWait(), until(_startAt));
    if (_link != nullptr && _link->takesParcels()) {
        const std::uint64_t due = _queue.nextDue();
        if (due != UINT64_MAX) longest = std::min(longest, until(due));
    }
    return stops() && _end ? std::min(longest, microsecondsUntil(_end)) : longest;
}

}  // namespace quorvane::client
