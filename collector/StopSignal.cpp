#include "collector/StopSignal.h"

#include "collector/StartError.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <cerrno>

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>

namespace quorvane::collector {

namespace {

/// As poll(2) takes it: -1 to wait for ever.
int millisecondsUntil(std::chrono::steady_clock::time_point deadline) {
    if (deadline == std::chrono::steady_clock::time_point::max()) return -1;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, std::numeric_limits<int>::max()));
}

}  // namespace

StopSignal::StopSignal() : _event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!_event) throw StartError("cannot make an eventfd");
}

void StopSignal::raise() {
    ::eventfd_write(_event.get(), 1);
}

bool StopSignal::waitFor(int descriptor, short events, std::chrono::steady_clock::time_point deadline,
                         bool stoppable) const {
    // poll(2) passes over negative descriptors.
    std::array<pollfd, 2> waited{{{descriptor, events, 0}, {stoppable ? _event.get() : -1, POLLIN, 0}}};
    int ready = 0;
    do {
        ready = ::poll(waited.data(), waited.size(), millisecondsUntil(deadline));
    } while (ready < 0 && errno == EINTR);
    return ready > 0 && waited[1].revents == 0 && (waited[0].revents & POLLNVAL) == 0;
}

void StopSignal::pause(std::chrono::milliseconds time) const {
    waitFor(-1, 0, std::chrono::steady_clock::now() + time);
}

}  // namespace quorvane::collector
