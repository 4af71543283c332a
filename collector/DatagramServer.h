#pragma once

#include "collector/DatagramDeduplicator.h"
#include "collector/EventSink.h"
#include "collector/StopSignal.h"
#include "platform/base/UniqueDescriptor.h"

#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <span>
#include <string>

namespace quorvane::collector {

/// Takes datagrams over UDP: writes each to the sink as one line and acknowledges it to a sender that waits
/// for that, by sending the header back. What cannot be written is not acknowledged, so that it comes again.
class DatagramServer {
  public:
    /// Port 0 picks a free one. The sink and the signal must outlive the server. Throws StartError.
    DatagramServer(const std::string& address, int port, EventSink& sink, const StopSignal& stop);

    int port() const { return _port; }

    /// Serves until the signal is raised.
    void serve();

  private:
    struct Sender;

    bool receive();
    void take(const Sender& sender, std::span<const std::uint8_t> bytes);
    void drop(const Sender& sender);
    void acknowledge(const Sender& sender, std::span<const std::uint8_t> bytes) const;

    EventSink& _sink;
    const StopSignal& _stop;
    platform::UniqueDescriptor _socket;
    int _port = 0;
    DatagramDeduplicator _recent;
    std::uint64_t _taken = 0;
    std::uint64_t _repeated = 0;
    std::uint64_t _malformed = 0;
    std::chrono::steady_clock::time_point _lastWarning{};
};

}  // namespace quorvane::collector
