#pragma once

#include "platform/value/Value.h"

#include <cstdint>

namespace quorvane {

/// A datagram that waits for its first complete transmission or for its acknowledgement.
struct UDPPacketToSend {
    enum class State : std::int32_t { NotSent = 0, AwaitsAcknowledgement = 1 };

    State state = State::NotSent;
    std::int32_t numberOfChecks = 0;  ///< Timer ticks since the last transmission.
    std::int32_t numberOfRetransmits = 0;
    std::uint16_t eventNumber = 0;
    Data data;  ///< Header and text.
};

}  // namespace quorvane
