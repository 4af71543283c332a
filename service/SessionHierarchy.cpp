#include "service/SessionHierarchy.h"

#include "framework/Keys.h"
#include "platform/Log.h"
#include "platform/Text.h"
#include "session/QuorvanedSession.h"

#include <algorithm>
#include <string_view>

namespace quorvane {

using platform::logDebug;
using platform::logError;
using platform::logInfo;

namespace {

/// Keys of emptied groups past this many bytes are forgotten: clients choose them.
constexpr std::size_t kEmptiedKeyBytes = 1u << 20;

std::string lowercasedName(const Dictionary* userInfo, std::string_view key) {
    const std::string* name = userInfo != nullptr ? userInfo->string(key) : nullptr;
    return name != nullptr ? platform::lowercased(*name) : std::string();
}

}  // namespace

std::string userInfoKey(const QuorvanedSession& session) {
    const auto userInfo = session.userInfo();
    std::string key = lowercasedName(userInfo.get(), kQuorvaneUserInfoClientName);
    key += ':';
    key += lowercasedName(userInfo.get(), kQuorvaneUserInfoServiceName);
    return key;
}

// Filing.

void SessionHierarchy::userInfoUpdatedForSession(QuorvanedSession& session) {
    if (session.userInfo() == nullptr) {
        logInfo("userInfoUpdatedForSession: No user info found for session {}", session.sessionID());
        return;
    }
    const std::scoped_lock lock(_lock);
    removeSession(session);
    const auto group = groupForKey(userInfoKey(session));
    logDebug("userInfoUpdatedForSession: Adding session {} to list for userInfoKey {}", session.sessionID(),
             group->first);
    group->second.push_back(&session);
    _filed.emplace(&session, group);
}

SessionHierarchy::Groups::iterator SessionHierarchy::groupForKey(const std::string& key) {
    const auto [group, isNew] = _correlatedSessions.try_emplace(key);
    if (isNew)
        ++_groupCount;
    else if (group->second.empty())
        _emptiedKeyBytes -= key.size();
    return group;
}

void SessionHierarchy::removeSession(const QuorvanedSession& session) {
    const auto filed = _filed.find(&session);
    if (filed == _filed.end()) return;
    const auto group = filed->second;
    _filed.erase(filed);
    std::erase(group->second, &session);
    if (group->second.empty()) forgetEmptied(group);
}

void SessionHierarchy::forgetEmptied(Groups::iterator group) {
    const std::size_t bytes = group->first.size();
    if (_emptiedKeyBytes + bytes > kEmptiedKeyBytes)
        _correlatedSessions.erase(group);
    else
        _emptiedKeyBytes += bytes;
}

// Looking up.

const SessionHierarchy::SessionList* SessionHierarchy::sessionsForKey(const std::string& key) const {
    const auto found = _correlatedSessions.find(key);
    return found != _correlatedSessions.end() && !found->second.empty() ? &found->second : nullptr;
}

bool SessionHierarchy::holds(const SessionList& list, const QuorvanedSession& session) const {
    const auto filed = _filed.find(&session);
    return filed != _filed.end() && &filed->second->second == &list;
}

QuorvanedSession* SessionHierarchy::getFirstSessionWithHierarchy(std::int64_t level,
                                                                 const SessionList* sessionList) {
    if (sessionList == nullptr) return nullptr;
    const auto found = std::find_if(
        sessionList->begin(), sessionList->end(),
        [=](const QuorvanedSession* session) { return session->getSessionHierarchy() == level; });
    return found != sessionList->end() ? *found : nullptr;
}

std::optional<std::string> SessionHierarchy::parentSessionIDStringForSession(
    const QuorvanedSession& session) const {
    const std::int32_t hierarchy = session.getSessionHierarchy();
    if (hierarchy == 0) return std::nullopt;
    const std::string key = userInfoKey(session);
    logDebug("parentSessionIDStringForSession: Checking userInfoKey '{}' for session {}", key,
             session.sessionID());
    const std::scoped_lock lock(_lock);
    const SessionList* sessions = sessionsForKey(key);
    if (sessions == nullptr) {
        logError("parentSessionIDStringForSession: ERROR: No sessions found for user info key {}", key);
        return std::nullopt;
    }
    if (!holds(*sessions, session)) {
        logError("parentSessionIDStringForSession: ERROR: Session {} not found for user info key {}",
                 session.sessionID(), key);
        return std::nullopt;
    }
    if (hierarchy < 0) return std::nullopt;
    std::optional<std::string> parents;
    for (std::int32_t level = hierarchy - 1; level >= 0; --level) {
        const QuorvanedSession* parent = getFirstSessionWithHierarchy(level, sessions);
        if (parent == nullptr) {
            logInfo(
                "parentSessionIDStringForSession: Found a gap in hierarchy (one of parents missing): incomplete parentSessionID is '{}'",
                platform::orNull(parents));
            break;
        }
        parents = parents ? parent->sessionIDString() + "." + *parents : parent->sessionIDString();
    }
    return parents;
}

QuorvanedSession* SessionHierarchy::parentSessionForChild(const QuorvanedSession& session) const {
    const std::int32_t hierarchy = session.getSessionHierarchy();
    if (hierarchy == 0) return nullptr;
    const std::string key = userInfoKey(session);
    logDebug("parentSessionForChild: Checking userInfoKey '{}' for session {}", key, session.sessionID());
    const SessionList* sessions = sessionsForKey(key);
    if (sessions == nullptr) {
        logError("parentSessionForChild: ERROR: No sessions found for user info key {}", key);
        return nullptr;
    }
    if (!holds(*sessions, session)) {
        logError("parentSessionForChild: ERROR: Session {} not found for user info key {}",
                 session.sessionID(), key);
        return nullptr;
    }
    const std::int64_t level = std::int64_t{hierarchy} - 1;
    QuorvanedSession* parent = getFirstSessionWithHierarchy(level, sessions);
    if (parent == nullptr)
        logInfo("parentSessionForChild: Unable to find session with hierarchy of {} for userInfoKey '{}'",
                level, key);
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
    const SessionList* sessions = sessionsForKey(userInfoKey(session));
    if (sessions == nullptr) return nullptr;
    // One pass instead of one a level: levels come from a storebag and may be large, with large gaps.
    QuorvanedSession* topmost = nullptr;
    std::int32_t topmostLevel = hierarchy;
    for (QuorvanedSession* candidate : *sessions) {
        const std::int32_t level = candidate->getSessionHierarchy();
        if (level < 0 || level >= topmostLevel || !candidate->hasAggregator()) continue;
        if (getFirstSessionWithHierarchy(level, sessions) != candidate) continue;
        topmost = candidate;
        topmostLevel = level;
    }
    return topmost;
}

// What follows from a change.

void SessionHierarchy::updateDownstreamSessions(QuorvanedSession& session) {
    if (session.userInfo() == nullptr) {
        logInfo("updateDownstreamSessions: No user info found for session {}", session.sessionID());
        return;
    }
    const std::string key = userInfoKey(session);
    const std::int32_t hierarchy = session.getSessionHierarchy();
    const std::scoped_lock lock(_lock);
    session.updateCombinedSessionID();
    session.syncReportingStates();
    const bool ancestorAggregates = hierarchy >= 1 && getAncestorWithAggregatorForSession(session) != nullptr;
    if (ancestorAggregates) session.shutdownSessionAggregation();

    const SessionList* sessions = sessionsForKey(key);
    if (sessions == nullptr) return;
    for (QuorvanedSession* downstream : *sessions) {
        if (downstream->getSessionHierarchy() <= hierarchy) continue;
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
