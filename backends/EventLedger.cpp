#include "backends/EventLedger.h"

#include "backends/ReasonTexts.h"
#include "backends/SessionLedger.h"

#include <unistd.h>

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

void EventLedger::join(std::shared_ptr<SessionLedger> session, std::string backend) {
    _session = std::move(session);
    _backend = std::move(backend);
    _session->ledgerJoins(*this);
}

platform::UserAccount& EventLedger::account() const {
    static const auto own = platform::UserAccount::of(::geteuid());
    return _session != nullptr ? _session->account() : *own;
}

EventGroup EventLedger::current() const {
    if (_current.number == 0) return {};
    return {.category = _current.category, .type = _current.type, .numbers = {_current.number}};
}

void EventLedger::hold() {
    _inHand.subtract(1);
    _held.add(1);
    if (_current.number == 0) return;
    _heldNumbers.push_back(_current.number);
    tell({.fate = "held", .held = _held.get()}, current());
}

EventGroup EventLedger::take(std::uint64_t events) {
    _held.subtract(events);
    _inHand.add(events);
    return {.count = events, .numbers = std::exchange(_heldNumbers, {})};
}

void EventLedger::drop(DropReason reason, const EventGroup& events) {
    _inHand.subtract(events.count);
    _dropped[indexOf(reason)].add(events.count);
    tellDrop(reason, events);
}

void EventLedger::handOver(EventGroup& events) {
    _inHand.subtract(events.count);
    _handedOver.add(events.count);
    if (isWatched()) events.handedOver = std::chrono::steady_clock::now();
}

void EventLedger::finish(Fate fate, const EventGroup& events, const PostAnswer& answer) {
    _handedOver.subtract(events.count);
    SharedCount& count = fate == Fate::Posted ? _posted : fate == Fate::Refused ? _refused : _failed;
    count.add(events.count);
    if (!isWatched()) return;
    EventNews news{.fate = keyOf(fate), .status = answer.status};
    if (fate == Fate::Failed) {
        news.reason = "noAnswer";
        news.reasonText = answer.error.empty() ? "no answer came" : answer.error;
    }
    tell(std::move(news), events);
}

void EventLedger::dropHandedOver(DropReason reason, const EventGroup& events) {
    _handedOver.subtract(events.count);
    _dropped[indexOf(reason)].add(events.count);
    tellDrop(reason, events);
}

void EventLedger::tellDrop(DropReason reason, const EventGroup& events) const {
    if (isWatched())
        tell({.fate = "dropped", .reason = keyOf(reason), .reasonText = std::string(textOf(reason))}, events);
}

void EventLedger::tell(EventNews news, const EventGroup& events) const {
    using std::chrono::milliseconds;
    if (_session == nullptr || events.count == 0) return;
    news.count = events.count;
    news.numbers = events.numbers;
    news.category = events.category;
    news.type = events.type;
    if (events.handedOver)
        news.milliseconds =
            std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - *events.handedOver)
                .count();
    news.backend = _backend;
    _session->tell(std::move(news));
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
    const std::uint64_t held = _held.get();
    if (held > 0) drop(DropReason::SessionEnded, take(held));
    const std::uint64_t handedOver = _handedOver.get();
    if (handedOver > 0) dropHandedOver(DropReason::CutOff, {.count = handedOver});
    const std::uint64_t inHand = _inHand.get();
    if (inHand > 0) drop(DropReason::CutOff, {.count = inHand});
}

}  // namespace quorvane
