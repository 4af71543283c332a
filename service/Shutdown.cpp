#include "service/Shutdown.h"

#include "backends/UploadRoom.h"
#include "platform/base/Log.h"
#include "platform/http/HttpSession.h"
#include "platform/system/ProcessTransaction.h"

#include <systemd/sd-daemon.h>

#include <chrono>
#include <csignal>
#include <utility>

namespace quorvane {

bool Shutdown::awaitSignals() {
    const auto told = [this] { begin(); };
    return _loop.addSignal(SIGTERM, told) && _loop.addSignal(SIGINT, told);
}

void Shutdown::begin() {
    ::sd_notify(0, "STOPPING=1");
    if (std::exchange(_begun, true)) {
        _loop.exit(0);
        return;
    }
    if (platform::processTransactionOpen()) platform::logInfo("main: Told to end, ending all sessions.");
    _loop.addTimer(kLongest, [this] {
        platform::logWarning("main: Sessions or posts did not end in time.");
        _loop.exit(0);
    });
    // A session that waits for a server cannot end, and may hold what others need for their end.
    cancelTransfers();
    _listener.invalidateAll([this] { drainPosts(); });
}

/// In short steps, so that the loop hears of a second signal.
void Shutdown::drainPosts() {
    constexpr std::chrono::milliseconds step{100};
    if (platform::drainHttpSession(step))
        _loop.exit(0);
    else
        _loop.post([this] { drainPosts(); });
}

}  // namespace quorvane
