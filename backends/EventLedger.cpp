#include "backends/EventLedger.h"

#include "backends/SessionLedger.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace quorvane {

namespace {

std::size_t indexOf(DropReason reason) {
    return static_cast<std::size_t>(reason);
}

}  // namespace

DropReason dropReasonOf(ReportingReason reason) {
    switch (reason) {
        case ReportingReason::NoConsent:
            return DropReason::NoConsent;
        case ReportingReason::NoClientList:
            return DropReason::NoClientList;
        case ReportingReason::NoMatchingClient:
            return DropReason::NoMatchingClient;
        case ReportingReason::CountryNotListed:
            return DropReason::CountryNotListed;
        case ReportingReason::DeviceNotListed:
            return DropReason::DeviceNotListed;
        case ReportingReason::NoFilters:
            return DropReason::NoFilters;
        case ReportingReason::NoSamplingThreshold:
            return DropReason::NoSamplingThreshold;
        case ReportingReason::BetweenThresholds:
        case ReportingReason::AboveThresholds:
            return DropReason::SampledOut;
        case ReportingReason::ParentDoesNotReport:
            return DropReason::ParentDoesNotReport;
        case ReportingReason::StoppedByServer:
            return DropReason::StoppedByServer;
        default:
            return DropReason::SessionEnded;  // It reports or may come to, so nothing else lost the event.
    }
}

// Totals.

std::uint64_t EventTotals::droppedInAll() const {
    return std::accumulate(dropped.begin(), dropped.end(), std::uint64_t{0});
}

bool EventTotals::balance() const {
    return accepted == posted + refused + failed + underWay + held + droppedInAll();
}

EventTotals& EventTotals::operator+=(const EventTotals& other) {
    accepted += other.accepted;
    posted += other.posted;
    refused += other.refused;
    failed += other.failed;
    underWay += other.underWay;
    held += other.held;
    for (std::size_t at = 0; at < dropped.size(); ++at) dropped[at] += other.dropped[at];
    for (std::size_t at = 0; at < posts.size(); ++at) posts[at] += other.posts[at];
    return *this;
}

// One backend's ledger.

EventLedger::~EventLedger() {
    finishAll();
    if (_session != nullptr) _session->ledgerEnds(*this);
}

void EventLedger::join(std::shared_ptr<SessionLedger> session) {
    _session = std::move(session);
    _session->ledgerJoins(*this);
}

void EventLedger::drop(DropReason reason, std::uint64_t events) {
    _inHand.subtract(events);
    _dropped[indexOf(reason)].add(events);
}

void EventLedger::handOver(std::uint64_t events) {
    _inHand.subtract(events);
    _handedOver.add(events);
}

void EventLedger::finish(Fate fate, std::uint64_t events) {
    _handedOver.subtract(events);
    SharedCount& count = fate == Fate::Posted ? _posted : fate == Fate::Refused ? _refused : _failed;
    count.add(events);
}

void EventLedger::dropHandedOver(DropReason reason, std::uint64_t events) {
    _handedOver.subtract(events);
    _dropped[indexOf(reason)].add(events);
}

void EventLedger::countPost(int status) {
    const auto hundreds = static_cast<std::size_t>(std::max(status, 0) / 100);
    _posts[hundreds < _posts.size() ? hundreds : 0].add(1);
}

EventTotals EventLedger::totals() const {
    constexpr int kAttempts = 100;
    EventTotals totals = read();
    for (int attempt = 1; attempt < kAttempts && !totals.balance(); ++attempt) totals = read();
    return totals;
}

EventTotals EventLedger::read() const {
    EventTotals totals;
    totals.accepted = _accepted.get();
    totals.posted = _posted.get();
    totals.refused = _refused.get();
    totals.failed = _failed.get();
    totals.underWay = _inHand.get() + _handedOver.get();
    totals.held = _held.get();
    for (std::size_t at = 0; at < kDropReasons; ++at) totals.dropped[at] = _dropped[at].get();
    for (std::size_t at = 0; at < _posts.size(); ++at) totals.posts[at] = _posts[at].get();
    return totals;
}

void EventLedger::finishAll() {
    _dropped[indexOf(DropReason::SessionEnded)].add(_held.get());
    _held.subtract(_held.get());
    _dropped[indexOf(DropReason::CutOff)].add(_inHand.get() + _handedOver.get());
    _inHand.subtract(_inHand.get());
    _handedOver.subtract(_handedOver.get());
}

}  // namespace quorvane
