#include "backends/SessionLedger.h"

#include "backends/ReasonTexts.h"

#include <set>
#include <utility>

namespace quorvane {

using platform::MutexLock;

namespace {

/// All there are, and what those left behind that there are no more.
struct AllSessions {
    platform::Mutex mutex;
    std::set<const SessionLedger*> living GUARDED_BY(mutex);
    SessionTotals ended GUARDED_BY(mutex);
};

/// Never destroyed: the threads of connections may outlive the end of main().
AllSessions& allSessions() {
    static auto* const all = new AllSessions;
    return *all;
}

}  // namespace

SessionTotals& SessionTotals::operator+=(const SessionTotals& other) {
    events += other.events;
    unserved += other.unserved;
    incomplete += other.incomplete;
    relayed += other.relayed;
    uploads += other.uploads;
    failedUploads += other.failedUploads;
    return *this;
}

SessionLedger::SessionLedger(uid_t user, pid_t process) : _user(user), _process(process) {
    const MutexLock lock(allSessions().mutex);
    allSessions().living.insert(this);
}

SessionLedger::~SessionLedger() {
    const MutexLock lock(allSessions().mutex);
    allSessions().living.erase(this);
    allSessions().ended += totals();
}

void SessionLedger::dropUnserved(UnservedReason reason, std::optional<std::uint16_t> category,
                                 std::optional<std::uint16_t> type) {
    (reason == UnservedReason::Incomplete ? incomplete : unserved).add(1);
    if (!EventMonitor::isWatched()) return;
    tell({.fate = "dropped",
          .category = category,
          .type = type,
          .reason = keyOf(reason),
          .reasonText = std::string(textOf(reason))});
}

void SessionLedger::tell(EventNews news) const {
    if (!EventMonitor::watches(_user)) return;
    news.user = _user;
    news.process = _process;
    news.time = platform::timeOfDay();
    if (const auto who = identity.load()) {
        news.sessionID = who->sessionID;
        news.clientName = who->clientName;
        news.serviceName = who->serviceName;
    }
    EventMonitor::tell(std::move(news));
}

SessionTotals SessionLedger::totals() const {
    SessionTotals totals;
    totals.unserved = unserved.get();
    totals.incomplete = incomplete.get();
    totals.relayed = relayed.get();
    totals.uploads = uploads.get();
    totals.failedUploads = failedUploads.get();
    const MutexLock lock(_mutex);
    totals.events = _ended;
    for (const EventLedger* ledger : _ledgers) totals.events += ledger->totals();
    return totals;
}

SessionTotals SessionLedger::ofAll(std::optional<uid_t> user) {
    const MutexLock lock(allSessions().mutex);
    SessionTotals totals;
    if (!user) totals = allSessions().ended;
    for (const SessionLedger* session : allSessions().living)
        if (!user || session->user() == *user) totals += session->totals();
    return totals;
}

void SessionLedger::ledgerJoins(const EventLedger& ledger) {
    const MutexLock lock(_mutex);
    _ledgers.push_back(&ledger);
}

void SessionLedger::ledgerEnds(const EventLedger& ledger) {
    const MutexLock lock(_mutex);
    std::erase(_ledgers, &ledger);
    _ended += ledger.totals();
}

}  // namespace quorvane
