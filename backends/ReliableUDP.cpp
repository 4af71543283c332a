#include "backends/DashboardBackend.h"
#include "platform/base/Log.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <utility>

namespace quorvane {

using platform::logDebug;
using platform::logError;

namespace {

/// Ticks from one transmission to the next, by the retransmissions done so far.
constexpr std::array<std::int32_t, 4> kChecksBeforeRetransmit{2, 3, 5, 9};

constexpr std::chrono::milliseconds kLastResortDelay{9500};

constexpr std::size_t kEventNumberAt = 60;

}  // namespace

void DashboardBackend::useReliableUDP() {
    // Bound before it is connected, so that replies have a port to come back to.
    sockaddr_in any{};
    any.sin_family = AF_INET;
    if (::bind(_socketDescriptor.get(), reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0) {
        logError("DashboardBackend(useReliableUDP): can't bind socket, {}", errno);
        return;
    }
    _reliableUDP = true;
    _readSource = _networkProcQueue.makeReadSource(_socketDescriptor.get(), [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->processSocketRead();
    });
    if (_readSource == nullptr) {
        logError("DashboardBackend(useReliableUDP): can't create read source");
        return;
    }
    _readSource->setCancelHandler([this] { _socketDescriptor.reset(); });
}

bool DashboardBackend::send(const Data& datagram) const {
    const ssize_t sent =
        ::send(_socketDescriptor.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return sent >= 0 && static_cast<std::size_t>(sent) == datagram.size();
}

void DashboardBackend::tryToSendMsg(Data message, std::uint16_t eventNumber) {
    const bool sent = send(message);
    if (sent && !_reliableUDP) return ledger().finish(EventLedger::Fate::Posted, {});
    UDPPacketToSend packet;
    packet.state = sent ? UDPPacketToSend::State::AwaitsAcknowledgement : UDPPacketToSend::State::NotSent;
    packet.eventNumber = eventNumber;
    packet.data = std::move(message);
    assert(_messageQueue.size() <= kWaitingDatagrams &&
           "one in, one out keeps the bound only from within it");
    _messageQueue.push_back(std::move(packet));
    if (_messageQueue.size() <= kWaitingDatagrams) return;
    _messageQueue.pop_front();
    giveUp();
}

void DashboardBackend::giveUp() {
    ++_givenUp;
    ledger().finish(EventLedger::Fate::Failed, {});
}

void DashboardBackend::processSocketRead() {
    std::array<std::uint8_t, kDatagramBytes> reply;
    const ssize_t count = ::recv(_socketDescriptor.get(), reply.data(), reply.size(), MSG_DONTWAIT);
    // A shorter one names no event.
    if (count < static_cast<ssize_t>(kEventNumberAt + 2)) return;
    const int eventNumber = reply[kEventNumberAt] << 8 | reply[kEventNumberAt + 1];
    const auto acknowledged =
        std::find_if(_messageQueue.begin(), _messageQueue.end(),
                     [=](const UDPPacketToSend& packet) { return packet.eventNumber == eventNumber; });
    if (acknowledged == _messageQueue.end()) return;
    _messageQueue.erase(acknowledged);
    ledger().finish(EventLedger::Fate::Posted, {});
}

void DashboardBackend::myPeriodicTask() {
    for (auto packet = _messageQueue.begin(); packet != _messageQueue.end();)
        packet = isStillWaiting(*packet) ? packet + 1 : _messageQueue.erase(packet);
    if (_cleanupState != CleanupState::Running) advanceCleanup();
}

bool DashboardBackend::isStillWaiting(UDPPacketToSend& packet) {
    if (packet.state == UDPPacketToSend::State::AwaitsAcknowledgement) return retransmit(packet);
    if (!send(packet.data)) return true;
    packet.state = UDPPacketToSend::State::AwaitsAcknowledgement;
    if (!_reliableUDP) ledger().finish(EventLedger::Fate::Posted, {});
    return _reliableUDP;
}

/// One tick of a datagram that awaits its acknowledgement; false when it is given up.
bool DashboardBackend::retransmit(UDPPacketToSend& packet) {
    assert(packet.numberOfRetransmits >= 0 && "it is an index");
    const auto retransmits = static_cast<std::size_t>(packet.numberOfRetransmits);
    if (retransmits >= kChecksBeforeRetransmit.size()) {
        giveUp();
        return false;
    }
    if (packet.numberOfChecks + 1 < kChecksBeforeRetransmit[retransmits]) {
        ++packet.numberOfChecks;
    } else if (send(packet.data)) {
        packet.numberOfChecks = 0;
        ++packet.numberOfRetransmits;
    }
    return true;
}

void DashboardBackend::advanceCleanup() {
    if (_messageQueue.empty()) {
        logDebug("DashboardBackend(myPeriodicTask): clean up at myPeriodicTask.");
        cleanupSources();
        return;
    }
    if (_cleanupState != CleanupState::Asked) return;
    _cleanupState = CleanupState::LastResortScheduled;
    logDebug("DashboardBackend(myPeriodicTask): scheduled last resort clean-up in {} ms.",
             kLastResortDelay.count());
    _networkProcQueue.postAfter(kLastResortDelay, [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->cleanupSources();
    });
}

void DashboardBackend::cleanup() {
    _networkProcQueue.post([self = shared_from_this()] {
        // Without a timer, which ends what waits, there would be no end; a second call starts nothing anew.
        if (self->_messageQueue.empty() || self->_timer == nullptr) {
            self->cleanupSources();
        } else if (self->_cleanupState == CleanupState::Running) {
            self->_cleanupState = CleanupState::Asked;
            self->_keptAlive = self;
        }
    });
}

void DashboardBackend::cleanupSources() {
    if (_timer != nullptr) _timer->cancel();
    _timer.reset();
    if (_readSource != nullptr) _readSource->cancel();
    _readSource.reset();
    _keptAlive.reset();
}

}  // namespace quorvane
