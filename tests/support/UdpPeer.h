#pragma once

#include "platform/base/UniqueDescriptor.h"
#include "platform/value/Value.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include <gtest/gtest.h>

namespace quorvane::test {

/// A UDP socket on 127.0.0.1, a device's or a collector's. It sends only when told to. Datagrams of the
/// loopback are there as soon as their sender's call returns.
class UdpPeer {
  public:
    UdpPeer() {
        socklen_t size = sizeof _own;
        EXPECT_EQ(::bind(_socket.get(), reinterpret_cast<const sockaddr*>(&_own), size), 0);
        EXPECT_EQ(::getsockname(_socket.get(), reinterpret_cast<sockaddr*>(&_own), &size), 0);
    }
    /// One that sends to the port.
    explicit UdpPeer(std::uint16_t port) : UdpPeer() { _other.sin_port = htons(port); }

    std::uint16_t port() const { return ntohs(_own.sin_port); }

    /// From now on, whoever sends to it is told that nobody listens.
    void refuse() const {
        EXPECT_EQ(::connect(_socket.get(), reinterpret_cast<const sockaddr*>(&_own), sizeof _own), 0);
    }

    /// The next datagram, if one comes in time.
    std::optional<Data> receive(std::chrono::milliseconds atMost = std::chrono::seconds(20)) {
        pollfd ready{_socket.get(), POLLIN, 0};
        if (::poll(&ready, 1, static_cast<int>(atMost.count())) != 1) return std::nullopt;
        Data datagram(2048);
        socklen_t size = sizeof _other;
        const ssize_t count = ::recvfrom(_socket.get(), datagram.data(), datagram.size(), 0,
                                         reinterpret_cast<sockaddr*>(&_other), &size);
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

    /// Sends to the port it was told, or else to where the last datagram came from.
    void send(std::span<const std::uint8_t> bytes) const {
        EXPECT_EQ(::sendto(_socket.get(), bytes.data(), bytes.size(), 0,
                           reinterpret_cast<const sockaddr*>(&_other), sizeof _other),
                  static_cast<ssize_t>(bytes.size()));
    }

    void acknowledge(std::uint16_t eventNumber) const {
        Data bytes(64);
        bytes[60] = static_cast<std::uint8_t>(eventNumber >> 8);
        bytes[61] = static_cast<std::uint8_t>(eventNumber);
        send(bytes);
    }

  private:
    static sockaddr_in local() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }

    platform::UniqueDescriptor _socket{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    sockaddr_in _own = local();
    sockaddr_in _other = local();
};

}  // namespace quorvane::test
