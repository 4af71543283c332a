#include "service/SessionHierarchy.h"

#include "platform/base/Log.h"
#include "session/QuorvanedSession.h"
#include "util/DeviceFacts.h"

#include <cassert>
#include <utility>

namespace quorvane {

using platform::logDebug;
using platform::logError;
using platform::logInfo;

namespace {

/// Keys of emptied groups past this many bytes are forgotten: clients choose them.
constexpr std::size_t kEmptiedKeyBytes = 1u << 20;

}  // namespace

SessionHierarchy::Key SessionHierarchy::keyOf(const QuorvanedSession& session) const {
    return {_sharing.circleOf(session.user()), userInfoKey(session.userInfo().get())};
}

// Filing.

void SessionHierarchy::userInfoUpdatedForSession(QuorvanedSession& session) {
    if (session.userInfo() == nullptr) {
        logInfo("userInfoUpdatedForSession: No user info found for session {}", session.sessionID());
        return;
    }
    const std::scoped_lock lock(_lock);
    const std::optional<std::int32_t> level = removeSession(session);
    const auto group = groupForKey(keyOf(session));
    logDebug("userInfoUpdatedForSession: Adding session {} to list for userInfoKey {}", session.sessionID(),
             group->first.names);
    group->second.append(session, level);
    [[maybe_unused]] const bool isNew = _filed.emplace(&session, group).second;
    assert(isNew && "it was removed above; else it would stay behind in its old group");
}

SessionHierarchy::Groups::iterator SessionHierarchy::groupForKey(const Key& key) {
    const auto [group, isNew] = _correlatedSessions.try_emplace(key);
    if (isNew) {
        ++_groupCount;
    } else if (group->second.empty()) {
        assert(_emptiedKeyBytes >= key.names.size() && "an emptied group that is kept has been counted");
        _emptiedKeyBytes -= key.names.size();
    }
    return group;
}

std::optional<std::int32_t> SessionHierarchy::removeSession(const QuorvanedSession& session) {
    const auto filed = _filed.find(&session);
    if (filed == _filed.end()) return std::nullopt;
    const auto group = filed->second;
    _filed.erase(filed);
    const std::optional<std::int32_t> level = group->second.remove(session);
    if (group->second.empty()) forgetEmptied(group);
    return level;
}

void SessionHierarchy::forgetEmptied(Groups::iterator group) {
    assert(group->second.empty() && "sessions would point to a group that is gone");
    const std::size_t bytes = group->first.names.size();
    if (_emptiedKeyBytes + bytes > kEmptiedKeyBytes)
        _correlatedSessions.erase(group);
    else
        _emptiedKeyBytes += bytes;
}

void SessionHierarchy::takeLevel(const QuorvanedSession& session) {
    const std::scoped_lock lock(_lock);
    const auto filed = _filed.find(&session);
    if (filed != _filed.end()) filed->second->second.setLevel(session, session.getSessionHierarchy());
}

// Looking up.

const SessionGroup* SessionHierarchy::sessionsForKey(const Key& key) const {
    const auto found = _correlatedSessions.find(key);
    return found != _correlatedSessions.end() && !found->second.empty() ? &found->second : nullptr;
}

bool SessionHierarchy::holds(const SessionGroup& group, const QuorvanedSession& session) const {
    const auto filed = _filed.find(&session);
    return filed != _filed.end() && &filed->second->second == &group;
}

std::optional<std::string> SessionHierarchy::parentSessionIDStringForSession(
    const QuorvanedSession& session) const {
    const std::int32_t hierarchy = session.getSessionHierarchy();
    if (hierarchy == 0) return std::nullopt;
    const Key key = keyOf(session);
    logDebug("parentSessionIDStringForSession: Checking userInfoKey '{}' for session {}", key.names,
             session.sessionID());
    const std::scoped_lock lock(_lock);
    const SessionGroup* sessions = sessionsForKey(key);
    if (sessions == nullptr) {
        logError("parentSessionIDStringForSession: ERROR: No sessions found for user info key {}", key.names);
        return std::nullopt;
    }
    if (!holds(*sessions, session)) {
        logError("parentSessionIDStringForSession: ERROR: Session {} not found for user info key {}",
                 session.sessionID(), key.names);
        return std::nullopt;
    }
    if (hierarchy < 0) return std::nullopt;
    std::int32_t top = hierarchy;
    while (top > 0 && sessions->getFirstSessionWithHierarchy(top - 1) != nullptr) --top;
    std::optional<std::string> parents;
    for (std::int32_t level = top; level < hierarchy; ++level) {
        const QuorvanedSession* parent = sessions->getFirstSessionWithHierarchy(level);
        assert(parent != nullptr && "the levels from the top down were found above, under the same lock");
        const std::string& id = parent->sessionIDString();
        parents = parents ? *std::move(parents) + "." + id : id;
    }
    if (top > 0)
        logInfo(
            "parentSessionIDStringForSession: Found a gap in hierarchy (one of parents missing): incomplete parentSessionID is '{}'",
            platform::orNull(parents));
    return parents;
}

QuorvanedSession* SessionHierarchy::parentSessionForChild(const QuorvanedSession& session) const {
    const std::int32_t hierarchy = session.getSessionHierarchy();
    if (hierarchy == 0) return nullptr;
    const Key key = keyOf(session);
    logDebug("parentSessionForChild: Checking userInfoKey '{}' for session {}", key.names,
             session.sessionID());
    const SessionGroup* sessions = sessionsForKey(key);
    if (sessions == nullptr) {
        logError("parentSessionForChild: ERROR: No sessions found for user info key {}", key.names);
        return nullptr;
    }
    if (!holds(*sessions, session)) {
        logError("parentSessionForChild: ERROR: Session {} not found for user info key {}",
                 session.sessionID(), key.names);
        return nullptr;
    }
    const std::int64_t level = std::int64_t{hierarchy} - 1;
    QuorvanedSession* parent = sessions->getFirstSessionWithHierarchy(level);
    if (parent == nullptr)
        logInfo("parentSessionForChild: Unable to find session with hierarchy of {} for userInfoKey '{}'",
                level, key.names);
    return parent;
}

QuorvanedSession* SessionHierarchy::getAncestorWithAggregatorForSession(
    const QuorvanedSession& session) const {
    if (session.userInfo() == nullptr) {
        logInfo("getAncestorWithAggregatorForSession: No user info found for session {}",
                session.sessionID());
        return nullptr;
    }
    const std::int32_t hierarchy = session.getSessionHierarchy();
    if (hierarchy < 1) return nullptr;
    const SessionGroup* sessions = sessionsForKey(keyOf(session));
    if (sessions == nullptr) return nullptr;
    for (const auto& [level, ancestor] : sessions->firstOfEachLevel())
        if (level >= 0 && level < hierarchy && ancestor->hasAggregator()) return ancestor;
    return nullptr;
}

// What follows from a change.

void SessionHierarchy::updateDownstreamSessions(QuorvanedSession& session) {
    if (session.userInfo() == nullptr) {
        logInfo("updateDownstreamSessions: No user info found for session {}", session.sessionID());
        takeLevel(session);
        return;
    }
    const Key key = keyOf(session);
    const std::int32_t hierarchy = session.getSessionHierarchy();
    const std::scoped_lock lock(_lock);
    takeLevel(session);
    session.updateCombinedSessionID();
    session.syncReportingStates();
    const bool ancestorAggregates = hierarchy >= 1 && getAncestorWithAggregatorForSession(session) != nullptr;
    if (ancestorAggregates) session.shutdownSessionAggregation();

    const SessionGroup* sessions = sessionsForKey(key);
    if (sessions == nullptr) return;
    for (const auto& [downstream, level] : sessions->members()) {
        if (!level || *level <= hierarchy) continue;
        logDebug(
            "updateDownstreamSessions: Updating combined session ID and syncing reporting states for session {}",
            downstream->sessionID());
        downstream->updateCombinedSessionID();
        downstream->syncReportingStates();
        if ((ancestorAggregates || session.hasAggregator()) && downstream->hasAggregator())
            downstream->shutdownSessionAggregation();
    }
}

}  // namespace quorvane
