#pragma once

#include "service/GroupSharing.h"
#include "service/SessionGroup.h"

#include <sys/types.h>

#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

namespace quorvane {

class QuorvanedSession;

/// Groups of sessions that report about one activity: those of the same client name and service name whose
/// users share groups. In a group a session's level says where it stands; of several at one level the one
/// filed first counts.
///
/// The groups are guarded by the lock given. Operations take it themselves unless they are marked "locked":
/// those want it held by their caller, and what they return is valid while it is. Sessions are borrowed: they
/// must be removed before they end.
class SessionHierarchy {
  public:
    explicit SessionHierarchy(std::recursive_mutex& lock, GroupSharing sharing = {})
        : _lock(lock), _sharing(sharing) {}

    /// Files the session under the key of its user info, and nowhere else. Its level is the one that it had;
    /// a new one is nobody's ancestor until updateDownstreamSessions(), which takes its level.
    void userInfoUpdatedForSession(QuorvanedSession& session);
    /// The identifiers of the ancestors, from the top down, joined by "."; those above a gap are left out.
    /// Nothing for a session at the top or without a parent.
    std::optional<std::string> parentSessionIDStringForSession(const QuorvanedSession& session) const;
    /// The session one level above, or null. Locked.
    QuorvanedSession* parentSessionForChild(const QuorvanedSession& session) const;
    /// The top-most ancestor whose client aggregates, or null. Locked.
    QuorvanedSession* getAncestorWithAggregatorForSession(const QuorvanedSession& session) const;
    /// Corrects combined identifiers, states and aggregation of the session and of all below it.
    void updateDownstreamSessions(QuorvanedSession& session);

    /// Takes the session out of its group and gives the level that it had there. Locked.
    std::optional<std::int32_t> removeSession(const QuorvanedSession& session);

    /// How many groups there have been. Any thread, no lock.
    std::size_t groupCount() const { return _groupCount; }

  private:
    struct Key {
        uid_t circle;  ///< Of users; see GroupSharing.
        std::string names;

        auto operator<=>(const Key&) const = default;
    };
    using Groups = std::map<Key, SessionGroup>;

    Key keyOf(const QuorvanedSession& session) const;

    const SessionGroup* sessionsForKey(const Key& key) const;
    bool holds(const SessionGroup& group, const QuorvanedSession& session) const;
    Groups::iterator groupForKey(const Key& key);
    void forgetEmptied(Groups::iterator group);
    void takeLevel(const QuorvanedSession& session);

    std::recursive_mutex& _lock;
    const GroupSharing _sharing;
    Groups _correlatedSessions;  ///< By key. Emptied groups stay, so that they are not counted again.
    std::unordered_map<const QuorvanedSession*, Groups::iterator> _filed;
    std::size_t _emptiedKeyBytes = 0;
    std::atomic<std::size_t> _groupCount{0};
};

}  // namespace quorvane
