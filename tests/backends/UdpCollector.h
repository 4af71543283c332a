#pragma once

#include "platform/UniqueDescriptor.h"
#include "platform/Value.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include <gtest/gtest.h>

namespace quorvane {

/// A collector's socket on 127.0.0.1. It answers only when told to. Datagrams of the loopback are there as
/// soon as their sender's call returns.
class UdpCollector {
  public:
    UdpCollector() {
        _socket.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        EXPECT_EQ(::bind(_socket.get(), reinterpret_cast<const sockaddr*>(&address), size), 0);
        EXPECT_EQ(::getsockname(_socket.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
        _port = ntohs(address.sin_port);
    }

    std::uint16_t port() const { return _port; }

    /// The next datagram, if one comes in time.
    std::optional<Data> receive(std::chrono::milliseconds atMost = std::chrono::seconds(20)) {
        pollfd ready{_socket.get(), POLLIN, 0};
        if (::poll(&ready, 1, static_cast<int>(atMost.count())) != 1) return std::nullopt;
        Data datagram(2048);
        socklen_t size = sizeof _sender;
        const ssize_t count = ::recvfrom(_socket.get(), datagram.data(), datagram.size(), 0,
                                         reinterpret_cast<sockaddr*>(&_sender), &size);
        if (count < 0) return std::nullopt;
        datagram.resize(static_cast<std::size_t>(count));
        return datagram;
    }

    /// How many datagrams are there by now; takes them.
    int receiveAll() {
        int count = 0;
        while (receive(std::chrono::milliseconds(0))) ++count;
        return count;
    }

    /// Sends to where the last datagram came from.
    void reply(std::span<const std::uint8_t> bytes) const {
        EXPECT_EQ(::sendto(_socket.get(), bytes.data(), bytes.size(), 0,
                           reinterpret_cast<const sockaddr*>(&_sender), sizeof _sender),
                  static_cast<ssize_t>(bytes.size()));
    }

    void acknowledge(std::uint16_t eventNumber) const {
        Data bytes(64);
        bytes[60] = static_cast<std::uint8_t>(eventNumber >> 8);
        bytes[61] = static_cast<std::uint8_t>(eventNumber);
        reply(bytes);
    }

  private:
    platform::UniqueDescriptor _socket;
    std::uint16_t _port = 0;
    sockaddr_in _sender{};
};

}  // namespace quorvane
