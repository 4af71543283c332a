#include "service/QuorvanedAgent.h"

#include "framework/Keys.h"
#include "platform/base/FreedMemory.h"
#include "platform/base/Log.h"
#include "platform/system/ProcessTransaction.h"
#include "service/ClientProxy.h"
#include "service/ClientSessionEndpoint.h"
#include "service/InspectionEndpoint.h"
#include "session/QuorvanedSession.h"

#include <fmt/format.h>

#include <cassert>
#include <utility>

namespace quorvane {

using platform::logDebug;

namespace {

std::int32_t clientTypeOf(const QuorvanedSession& session) {
    const auto sessionInfo = session.sessionInfo();
    return sessionInfo != nullptr
               ? static_cast<std::int32_t>(sessionInfo->integer(kQuorvaneSessionInfoClientType))
               : 0;
}

}  // namespace

std::unique_ptr<QuorvanedAgent> QuorvanedAgent::init() {
    return std::unique_ptr<QuorvanedAgent>(new QuorvanedAgent);
}

std::string QuorvanedAgent::description() const {
    return fmt::format("<QuorvanedAgent {}>", static_cast<const void*>(this));
}

// Connections.

bool QuorvanedAgent::listener(const platform::BusListener&,
                              const std::shared_ptr<platform::BusConnection>& newConnection) {
    if (platform::logs(platform::LogLevel::Debug))
        logDebug("listener: Accepting new XPC connection {}, {}({}) connections.",
                 newConnection->description(), sessionCount(), _correlatedSessions.groupCount());
    const auto client = std::make_shared<ClientProxy>(newConnection);
    const auto session = QuorvanedSession::initWithSessionDelegate(*this, client);
    ClientSessionEndpoint::exportSession(*newConnection, session, client);
    newConnection->setIdleHandler([session] { return session->continueSending(); });
    InspectionEndpoint::exportInspection(*newConnection, *this);
    add(session);
    newConnection->setInterruptionHandler([session] {
        if (platform::logs(platform::LogLevel::Debug))
            logDebug("listener: XPC connection to {} was interrupted", session->description());
    });
    newConnection->setInvalidationHandler([this, session] {
        if (platform::logs(platform::LogLevel::Debug))
            logDebug("listener: XPC connection to {} was invalidated", session->description());
        remove(session);
    });
    return true;
}

std::size_t QuorvanedAgent::sessionCount() {
    const std::scoped_lock lock(_sessionList.lock);
    return _sessionList.sessions.size();
}

void QuorvanedAgent::add(std::shared_ptr<QuorvanedSession> session) {
    const std::scoped_lock lock(_sessionList.lock);
    if (_sessionList.sessions.empty()) platform::beginProcessTransaction();
    _sessionList.sessions.push_back(std::move(session));
}

void QuorvanedAgent::remove(const std::shared_ptr<QuorvanedSession>& session) {
    {
        const std::scoped_lock lock(_sessionList.lock);
        [[maybe_unused]] const auto removed = _sessionList.sessions.remove(session);
        assert(removed == 1 && "a connection ends once, and its session is listed until then");
        if (_sessionList.sessions.empty()) platform::endProcessTransaction();
    }
    {
        const std::scoped_lock lock(_lock);
        _correlatedSessions.removeSession(*session);
    }
    platform::memoryIsFreed();
}

// Inspection.

std::vector<SessionView> QuorvanedAgent::sessionViews() {
    const std::scoped_lock lock(_sessionList.lock);
    std::vector<SessionView> views;
    views.reserve(_sessionList.sessions.size());
    for (const auto& session : _sessionList.sessions) views.push_back(session->view());
    return views;
}

std::vector<StorebagStatus> QuorvanedAgent::storebagStatuses() {
    const auto statuses = _cachedStorebags.statuses();
    return statuses != nullptr ? *statuses : std::vector<StorebagStatus>();
}

// Storebags.

std::shared_ptr<const Dictionary> QuorvanedAgent::storebagForSession(const QuorvanedSession& session) {
    const std::int32_t clientType = clientTypeOf(session);
    // Before the lock: another session's download may hold it for long.
    logDebug("storebagForSession: Retrieving storebag for session {} with client type {}",
             session.sessionID(), clientType);
    const std::scoped_lock lock(_lock);
    return _cachedStorebags.storebagForSession(clientType);
}

std::optional<std::string> QuorvanedAgent::storebagVersionForSession(const QuorvanedSession& session) {
    const std::scoped_lock lock(_lock);
    return _cachedStorebags.storebagVersion(clientTypeOf(session));
}

// The hierarchy of sessions.

void QuorvanedAgent::userInfoUpdatedForSession(QuorvanedSession& session) {
    _correlatedSessions.userInfoUpdatedForSession(session);
}

void QuorvanedAgent::updateDownstreamSessions(QuorvanedSession& session) {
    _correlatedSessions.updateDownstreamSessions(session);
}

std::optional<std::string> QuorvanedAgent::parentSessionIDStringForSession(const QuorvanedSession& session) {
    return _correlatedSessions.parentSessionIDStringForSession(session);
}

QuorvanedSession* QuorvanedAgent::parentSessionForChild(const QuorvanedSession& session) {
    return _correlatedSessions.parentSessionForChild(session);
}

QuorvanedSession* QuorvanedAgent::getAncestorWithAggregatorForSession(const QuorvanedSession& session) {
    return _correlatedSessions.getAncestorWithAggregatorForSession(session);
}

}  // namespace quorvane
