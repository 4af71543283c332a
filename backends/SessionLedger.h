#pragma once

#include "backends/EventLedger.h"
#include "platform/base/Clock.h"
#include "platform/base/Snapshot.h"
#include "platform/base/ThreadAnnotations.h"
#include "platform/base/UserAccount.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quorvane {

/// Why an event reaches no backend.
enum class UnservedReason : std::uint8_t { NotStarted, NoStorebag, NoBackends, Incomplete };

/// What is counted of one session, or of many.
struct SessionTotals {
    EventTotals events;            ///< Of all backends: an event counts once with each of them.
    std::uint64_t unserved = 0;    ///< Events of sessions that had no backends, or none for events.
    std::uint64_t incomplete = 0;  ///< Messages without category or type, or without a session's identifiers.
    std::uint64_t relayed = 0;     ///< Events handed to an aggregating client.
    std::uint64_t uploads = 0;
    std::uint64_t failedUploads = 0;

    SessionTotals& operator+=(const SessionTotals& other);
};

/// Keeps count of one session and of its backends, those that have ended among them. It lives on until the
/// last of them has ended; then it is added to what the process counts of ended ones. Thread-safe but for the
/// counts, which the session's thread writes.
class SessionLedger {
  public:
    /// Who reports, as others may know it.
    struct Identity {
        std::uint32_t sessionID = 0;
        std::optional<std::string> clientName;
        std::optional<std::string> serviceName;
        std::optional<std::string> storebagVersion;
    };

    SessionLedger(uid_t user, pid_t process);
    ~SessionLedger();
    SessionLedger(const SessionLedger&) = delete;
    SessionLedger& operator=(const SessionLedger&) = delete;

    uid_t user() const { return _user; }
    pid_t process() const { return _process; }
    /// What the session's events are held at the cost of.
    platform::UserAccount& account() const { return *_account; }
    platform::TimeValue since() const { return _since; }
    /// The session's thread publishes it.
    platform::Snapshot<Identity> identity;

    OwnCount unserved, incomplete, relayed, uploads, failedUploads;

    /// Counts an event that no backend gets, and tells those who watch. The session's thread.
    void dropUnserved(UnservedReason reason, std::optional<std::uint16_t> category,
                      std::optional<std::uint16_t> type);
    /// Tells those who watch what became of events of the session. Any thread.
    void tell(EventNews news) const;

    SessionTotals totals() const;
    /// Of the process; with a user, of his sessions that are there.
    static SessionTotals ofAll(std::optional<uid_t> user = {});

  private:
    friend EventLedger;
    void ledgerJoins(const EventLedger& ledger);
    void ledgerEnds(const EventLedger& ledger);

    const uid_t _user;
    const pid_t _process;
    const std::shared_ptr<platform::UserAccount> _account = platform::UserAccount::of(_user);
    const platform::TimeValue _since = platform::timeOfDay();
    mutable platform::Mutex _mutex;
    std::vector<const EventLedger*> _ledgers GUARDED_BY(_mutex);
    EventTotals _ended GUARDED_BY(_mutex);
};

}  // namespace quorvane
