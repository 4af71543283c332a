#include "service/Termination.h"

#include "platform/HttpSession.h"
#include "platform/Log.h"
#include "platform/ProcessTransaction.h"

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <csignal>
#include <utility>

namespace quorvane {

using std::chrono::steady_clock;

bool Termination::awaitSignals() {
    const auto told = [this] { begin(); };
    return _loop.addSignal(SIGTERM, told) && _loop.addSignal(SIGINT, told);
}

void Termination::begin() {
    ::sd_notify(0, "STOPPING=1");
    if (std::exchange(_begun, true) || !platform::processTransactionOpen()) {
        _loop.exit(0);
        return;
    }
    platform::logInfo("main: Told to end, ending all sessions.");
    _deadline = steady_clock::now() + kLongest;
    _loop.addTimer(kLongest, [this] {
        platform::logWarning("main: Sessions did not end in time.");
        _loop.exit(0);
    });
    _listener.invalidateAll([this] { drainPosts(); });
}

void Termination::drainPosts() {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(_deadline - steady_clock::now());
    if (!platform::drainHttpSession(std::max(left, std::chrono::milliseconds::zero())))
        platform::logWarning("main: Posts did not end in time.");
    _loop.exit(0);
}

}  // namespace quorvane
