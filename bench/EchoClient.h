#pragma once

#include "bench/BusMessage.h"

#include <cstdint>
#include <string>

namespace quorvane::bench {

/// A bare D-Bus client of the echo.
class EchoClient {
  public:
    explicit EchoClient(const std::string& socketPath) : _bus(connectBus(socketPath)) {}
    EchoClient(const EchoClient&) = delete;
    EchoClient& operator=(const EchoClient&) = delete;

    /// Has events number `first` and on sent back, with as many unanswered at a time as libquorvane allows,
    /// until all are back.
    void echoPipelined(std::uint64_t first, std::uint64_t count);

  private:
    static int takeAnswer(sd_bus_message* answer, void* client, sd_bus_error*);
    void processUntilUnanswered(std::uint64_t atMost);

    const Bus _bus;
    std::uint64_t _unanswered = 0;
};

}  // namespace quorvane::bench
