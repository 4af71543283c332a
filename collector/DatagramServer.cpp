#include "collector/DatagramServer.h"

#include "collector/Datagram.h"
#include "collector/ReceivedTime.h"
#include "collector/StartError.h"
#include "platform/base/Log.h"
#include "platform/base/Owned.h"
#include "platform/formats/Json.h"
#include "platform/value/Bytes.h"

#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>

#include <fmt/format.h>

namespace quorvane::collector {

using platform::UniqueDescriptor;
using std::chrono::steady_clock;

namespace {

/// One more byte than the largest, so that a larger one shows.
constexpr std::size_t kBufferBytes = Datagram::kHeaderBytes + Datagram::kMaximumTextBytes + 1;
constexpr int kBurst = 64;
/// Bursts wait here while a line is written.
constexpr int kReceiveBufferBytes = 4 << 20;

UniqueDescriptor boundSocket(const std::string& address, int port) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (::getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) return {};
    const platform::Owned<addrinfo, ::freeaddrinfo> list(found);
    UniqueDescriptor socket(::socket(found->ai_family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket || ::bind(socket.get(), found->ai_addr, found->ai_addrlen) != 0) return {};
    ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &kReceiveBufferBytes, sizeof kReceiveBufferBytes);
    return socket;
}

int portOf(const sockaddr_storage& address) {
    return ntohs(address.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6&>(address).sin6_port
                                               : reinterpret_cast<const sockaddr_in&>(address).sin_port);
}

/// Nothing when a text in it is not UTF-8.
std::optional<std::string> lineOf(Datagram datagram, std::string peer) {
    const auto json = platform::compactJson(Dictionary{{"kind", "datagram"},
                                                       {"receivedTime", receivedTime()},
                                                       {"peer", std::move(peer)},
                                                       {"versionMajor", datagram.versionMajor},
                                                       {"clientType", datagram.clientType},
                                                       {"clientVersion", datagram.clientVersion},
                                                       {"eventTime", datagram.eventTime},
                                                       {"sessionID", datagram.sessionID},
                                                       {"method", datagram.method},
                                                       {"status", datagram.status},
                                                       {"deviceID", std::move(datagram.deviceID)},
                                                       {"eventNumber", datagram.eventNumber},
                                                       {"reliable", datagram.reliable},
                                                       {"explicitAddress", datagram.explicitAddress},
                                                       {"cut", datagram.cut},
                                                       {"values", std::move(datagram.values)}});
    if (!json) return std::nullopt;
    return std::string(json->begin(), json->end()) + '\n';
}

}  // namespace

struct DatagramServer::Sender {
    sockaddr_storage address{};
    socklen_t size = sizeof(sockaddr_storage);

    std::string text() const {
        std::array<char, NI_MAXHOST> host{};
        ::getnameinfo(reinterpret_cast<const sockaddr*>(&address), size, host.data(), host.size(), nullptr, 0,
                      NI_NUMERICHOST);
        return fmt::format("{}:{}", host.data(), portOf(address));
    }
};

DatagramServer::DatagramServer(const std::string& address, int port, EventSink& sink, const StopSignal& stop)
    : _sink(sink), _stop(stop), _socket(boundSocket(address, port)) {
    Sender own;
    if (!_socket || ::getsockname(_socket.get(), reinterpret_cast<sockaddr*>(&own.address), &own.size) != 0)
        throw StartError(fmt::format("cannot take datagrams on {} port {}", address, port));
    _port = portOf(own.address);
}

void DatagramServer::serve() {
    while (_stop.waitFor(_socket.get(), POLLIN, steady_clock::time_point::max()))
        // Not until none waits: under load one always does.
        for (int count = 0; count < kBurst && receive();) ++count;
    platform::logInfo("{} datagrams, {} more that were sent again, {} malformed", _taken, _repeated,
                      _malformed);
}

/// Takes one datagram; false when none waits.
bool DatagramServer::receive() {
    std::array<std::uint8_t, kBufferBytes> buffer;
    Sender sender;
    const ssize_t count = ::recvfrom(_socket.get(), buffer.data(), buffer.size(), 0,
                                     reinterpret_cast<sockaddr*>(&sender.address), &sender.size);
    if (count < 0) return false;
    take(sender, std::span(buffer.data(), static_cast<std::size_t>(count)));
    return true;
}

void DatagramServer::take(const Sender& sender, std::span<const std::uint8_t> bytes) {
    auto datagram = decodeDatagram(bytes);
    if (!datagram) return drop(sender);
    const bool reliable = datagram->reliable;
    const std::string peer = sender.text();
    const auto name = fmt::format("{} {} {}", peer, datagram->sessionID, datagram->eventNumber);
    const auto now = steady_clock::now();
    if (_recent.contains(name, platform::textOf(bytes), now)) {
        ++_repeated;
    } else {
        const auto line = lineOf(*std::move(datagram), peer);
        if (!line) return drop(sender);
        if (!_sink.append(*line)) return;
        _recent.remember(name, platform::textOf(bytes), now);
        ++_taken;
    }
    if (reliable) acknowledge(sender, bytes);
}

/// Tells of it at most once a second: whoever sends nonsense may send a lot of it.
void DatagramServer::drop(const Sender& sender) {
    ++_malformed;
    const auto now = steady_clock::now();
    if (now - _lastWarning < std::chrono::seconds(1)) return;
    _lastWarning = now;
    platform::logWarning("A malformed datagram from {} dropped; {} so far", sender.text(), _malformed);
}

/// A lost acknowledgement only makes the datagram come again.
void DatagramServer::acknowledge(const Sender& sender, std::span<const std::uint8_t> bytes) const {
    ::sendto(_socket.get(), bytes.data(), Datagram::kHeaderBytes, 0,
             reinterpret_cast<const sockaddr*>(&sender.address), sender.size);
}

}  // namespace quorvane::collector
