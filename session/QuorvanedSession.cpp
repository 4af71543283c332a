#include "session/QuorvanedSession.h"

#include "framework/Keys.h"
#include "platform/base/Log.h"
#include "platform/crypto/Crypto.h"
#include "platform/crypto/Uuid.h"

#include <fmt/format.h>

#include <utility>

namespace quorvane {

using platform::logDebug;

namespace {

constexpr std::uint16_t kInternalMethod = 0;
constexpr std::uint16_t kSessionStop = 1;

std::shared_ptr<const Dictionary> shared(std::optional<Dictionary> dictionary) {
    return dictionary ? std::make_shared<const Dictionary>(*std::move(dictionary)) : nullptr;
}

/// Absent names are never equal.
bool equalNames(const std::string* a, const std::string* b) {
    return a != nullptr && b != nullptr && *a == *b;
}

std::shared_ptr<QuorvaneBackend> backendNamed(const BackendDictionary* backends, std::string_view name) {
    if (backends == nullptr) return nullptr;
    const auto found = backends->find(name);
    return found != backends->end() ? found->second : nullptr;
}

}  // namespace

// Creation and the end.

std::shared_ptr<QuorvanedSession> QuorvanedSession::initWithSessionDelegate(
    QuorvanedSessionDelegate& sessionDelegate, std::shared_ptr<ClientSessionReplyInterface> connection) {
    return std::shared_ptr<QuorvanedSession>(new QuorvanedSession(sessionDelegate, std::move(connection)));
}

QuorvanedSession::QuorvanedSession(QuorvanedSessionDelegate& sessionDelegate,
                                   std::shared_ptr<ClientSessionReplyInterface> connection)
    : _sessionDelegate(sessionDelegate),
      _sessionIDString(platform::base64Encode(platform::randomUuidBytes())),
      _connection(std::move(connection)),
      _ledger(std::make_shared<SessionLedger>(_connection->user(), _connection->process())) {
    if (platform::logs(platform::LogLevel::Debug))
        logDebug("initWithSessionDelegate: QuorvanedSession initWithSessionDelegate:{}",
                 sessionDelegate.description());
    copyDeviceIdentifier(_deviceid);
    logDebug("initWithSessionDelegate: Initialized session with UUID {}", _sessionIDString);
}

QuorvanedSession::~QuorvanedSession() {
    logDebug("dealloc: QuorvanedSession dealloc: {}", sessionID());
    Dictionary payload;
    if (_storebagVersion) payload.set("StorebagVersion", *_storebagVersion);
    internalSendMessage(payload, kInternalMethod, kSessionStop);
    flushMessages();
    shutdownSessionAggregation();
    replaceBackends(std::nullopt);
}

std::string QuorvanedSession::description() const {
    return fmt::format("<QuorvanedSession {} {}>", sessionID(), _sessionIDString);
}

SessionView QuorvanedSession::view() const {
    return {.ledger = _ledger,
            .identity = _ledger->identity.load(),
            .identifier = _sessionIDString,
            .sessionInfo = _sessionInfo.load(),
            .backends = _backends.load(),
            .level = getSessionHierarchy(),
            .aggregates = hasAggregator()};
}

// Configuration.

void QuorvanedSession::publishIdentity() {
    const Dictionary* userInfo = _userInfo.own().get();
    const auto named = [&](std::string_view key) {
        return userInfo != nullptr ? userInfo->text(key) : std::nullopt;
    };
    _ledger->identity.publish(std::make_shared<const SessionLedger::Identity>(
        SessionLedger::Identity{.sessionID = sessionID(),
                                .clientName = named(kQuorvaneUserInfoClientName),
                                .serviceName = named(kQuorvaneUserInfoServiceName),
                                .storebagVersion = _storebagVersion}));
}

void QuorvanedSession::setSessionInfo(Dictionary sessionInfo, std::optional<Dictionary> userInfo,
                                      std::vector<std::string> frameworksToCheck, bool hasAggregationBlock) {
    setSessionID(static_cast<std::uint32_t>(sessionInfo.unsignedInteger(kQuorvaneSessionInfoSessionID)));
    logDebug("setSessionInfo: Configuring session {}", sessionID());
    if (userInfo && !sessionInfo.boolean(kQuorvaneSessionInfoRequireUserInfo))
        platform::logWarning("setSessionInfo: Configure session: user info provided without requiring it");
    _sessionInfo.publish(shared(std::move(sessionInfo)));
    _frameworks = std::move(frameworksToCheck);
    _userInfo.publish(shared(std::move(userInfo)));
    setHasAggregator(hasAggregationBlock);
    publishIdentity();
}

void QuorvanedSession::startConfigWithCompletionHandler(
    const std::function<void(const ReportingStates&)>& completionHandler) {
    logDebug("startConfigWithCompletionHandler: Starting configuration for session {}", sessionID());
    ReportingStates states;
    _unserved = UnservedReason::NoStorebag;
    if (const auto storebag = _sessionDelegate.storebagForSession(*this)) {
        _storebagVersion = _sessionDelegate.storebagVersionForSession(*this);
        _unserved = UnservedReason::NoBackends;
        publishIdentity();
        createBackendsWithStorebag(storebag);
        updateSessionWithDefaultSessionInfo();
        states = fetchReportingStates();
    }
    if (completionHandler) completionHandler(states);
}

void QuorvanedSession::fetchStatesWithUserInfo(
    std::optional<Dictionary> userInfo,
    const std::function<void(const ReportingStates&)>& completionHandler) {
    logDebug("fetchStatesWithUserInfo: Fetching states for session {}", sessionID());
    receivedUserInfo(shared(std::move(userInfo)));
    if (completionHandler) completionHandler(fetchReportingStates());
}

void QuorvanedSession::receivedUserInfo(std::shared_ptr<const Dictionary> userInfo) {
    if (sameNames(userInfo.get())) return;
    if (_userInfo.own() == nullptr && userInfo == nullptr) return;
    logDebug("receivedUserInfo: Received new user info for session {}", sessionID());
    _userInfo.publish(std::move(userInfo));
    publishIdentity();
    updateSessionWithDefaultSessionInfo();
}

bool QuorvanedSession::sameNames(const Dictionary* userInfo) const {
    const Dictionary* current = _userInfo.own().get();
    if (current == nullptr || userInfo == nullptr) return false;
    const auto same = [&](std::string_view key) {
        return equalNames(current->string(key), userInfo->string(key));
    };
    return same(kQuorvaneUserInfoClientName) && same(kQuorvaneUserInfoServiceName);
}

void QuorvanedSession::updateSessionWithDefaultSessionInfo() {
    _sessionDelegate.userInfoUpdatedForSession(*this);
    updateReportingStates();
    _sessionDelegate.updateDownstreamSessions(*this);
}

std::int32_t QuorvanedSession::getSessionHierarchy() const {
    const auto backend = backendNamed(_backends.load().get(), kQuorvaneBackendHTTPPost);
    return backend != nullptr ? backend->hierarchy() : 0;
}

// Display URL.

void QuorvanedSession::fetchDisplayURL(const std::function<void(const std::string&)>& reply) {
    logDebug("fetchDisplayURL: Fetching display URL for session {}", sessionID());
    const std::string* url = displayURL();
    if (!reply) return;
    reply(url != nullptr ? fmt::format("{}?sequences={}&override=yes", *url, sessionID())
                         : "URL not available");
}

const std::string* QuorvanedSession::displayURL() const {
    for (const auto name : {kQuorvaneBackendHTTPPost, kQuorvaneBackendHTTPPost2, kQuorvaneBackendDashboard}) {
        const auto backend = backendNamed(_backends.own().get(), name);
        if (backend != nullptr && backend->displayURL()) return &*backend->displayURL();
    }
    return nullptr;
}

}  // namespace quorvane
