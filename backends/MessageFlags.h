#pragma once

#include "backends/BackendState.h"
#include "backends/QuorvaneBackend.h"

namespace quorvane {

/// What an event's flag asks for; of flags beyond these nothing but that the event is not held.

/// Bit 0 of the two that count: to be posted now, to the real-time URL.
inline bool isRealtime(MessageFlag flag) {
    return flag == MessageFlag{1} || flag == MessageFlag{3};
}

/// Bit 1: that a sampled-out backend starts to report.
inline bool promotesSampledOut(MessageFlag flag) {
    return flag == MessageFlag{2} || flag == MessageFlag{3};
}

/// Whether an event of that flag is held by a backend that does not drop it.
inline bool isHeld(MessageFlag flag, BackendState state, bool batchEvents, bool awaitsUserInfo) {
    if (flag != MessageFlag{0} && flag != MessageFlag{2}) return false;
    return state == BackendState::WaitingForUserInfo || state == BackendState::SampledOut || batchEvents ||
           awaitsUserInfo;
}

}  // namespace quorvane
