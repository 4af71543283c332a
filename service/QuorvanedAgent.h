#pragma once

#include "platform/bus/BusConnection.h"
#include "platform/bus/BusListener.h"
#include "service/GroupSharing.h"
#include "service/InspectionSource.h"
#include "service/SessionHierarchy.h"
#include "service/protocols.h"
#include "storebag/StorebagCache.h"

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace quorvane {

/// The process's one agent: gives every connection a session, owns the sessions, and is their delegate.
/// While there is at least one session it holds a process transaction.
class QuorvanedAgent final : public QuorvanedSessionDelegate, public InspectionSource {
  public:
    static std::unique_ptr<QuorvanedAgent> init();

    /// The listener's delegate: sets the connection up with a session of its own. Always true.
    bool listener(const platform::BusListener& listener,
                  const std::shared_ptr<platform::BusConnection>& newConnection);

    std::recursive_mutex& lock() override { return _lock; }
    std::shared_ptr<const Dictionary> storebagForSession(const QuorvanedSession& session) override;
    std::optional<std::string> storebagVersionForSession(const QuorvanedSession& session) override;
    void userInfoUpdatedForSession(QuorvanedSession& session) override;
    void updateDownstreamSessions(QuorvanedSession& session) override;
    std::optional<std::string> parentSessionIDStringForSession(const QuorvanedSession& session) override;
    QuorvanedSession* parentSessionForChild(const QuorvanedSession& session) override;
    QuorvanedSession* getAncestorWithAggregatorForSession(const QuorvanedSession& session) override;
    std::string description() const override;

    std::vector<SessionView> sessionViews() override;
    std::vector<StorebagStatus> storebagStatuses() override;

  private:
    /// The sessions in the order of acceptance, and the lock of the list.
    struct SessionList {
        std::recursive_mutex lock;
        std::list<std::shared_ptr<QuorvanedSession>> sessions;
    };

    QuorvanedAgent() = default;
    std::size_t sessionCount();
    void add(std::shared_ptr<QuorvanedSession> session);
    void remove(const std::shared_ptr<QuorvanedSession>& session);

    // Neither lock is ever taken while the other is held.
    SessionList _sessionList;
    std::recursive_mutex _lock;
    StorebagCache _cachedStorebags;  ///< Guarded by _lock, but for what any thread may call.
    SessionHierarchy _correlatedSessions{_lock, GroupSharing::fromDefaults()};
};

}  // namespace quorvane
