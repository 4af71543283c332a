#include "framework/Keys.h"
#include "platform/base/Log.h"
#include "session/BackendAnswers.h"
#include "session/QuorvanedSession.h"

#include <utility>

namespace quorvane {

using platform::logDebug;
using platform::logError;

void QuorvanedSession::sendMessageWithSessionInfo(const Dictionary& sessionInfo,
                                                  std::optional<Dictionary> userInfo, std::uint16_t category,
                                                  std::uint16_t type, const Dictionary* payload,
                                                  const std::function<void(const std::string&)>& reply) {
    if (!sessionInfo.contains(kQuorvaneSessionInfoClientType) ||
        !sessionInfo.contains(kQuorvaneSessionInfoSessionID)) {
        logError("sendMessageWithSessionInfo: Could not retrieve identifiers from sessionInfo");
        _ledger->dropUnserved(UnservedReason::Incomplete, category, type);
        return;
    }
    const auto info = std::make_shared<const Dictionary>(sessionInfo);
    const auto user = userInfo ? std::make_shared<const Dictionary>(*std::move(userInfo)) : nullptr;
    setSessionID(static_cast<std::uint32_t>(info->unsignedInteger(kQuorvaneSessionInfoSessionID)));
    _sessionInfo.publish(info);
    receivedUserInfo(user);
    publishIdentity();
    logDebug("sendMessageWithSessionInfo: Sending message with session info for session {}", sessionID());

    const auto storebag = _sessionDelegate.storebagForSession(*this);
    if (storebag != nullptr)
        sendMessageWithSessionInfo(info, user, storebag, category, type, payload, _ledger);
    else
        _ledger->dropUnserved(UnservedReason::NoStorebag, category, type);
    if (reply) reply(storebag != nullptr ? "finished" : "storebag not available");
}

void QuorvanedSession::sendMessageWithSessionInfo(const std::shared_ptr<const Dictionary>& sessionInfo,
                                                  const std::shared_ptr<const Dictionary>& userInfo,
                                                  const std::shared_ptr<const Dictionary>& storebag,
                                                  std::uint16_t category, std::uint16_t type,
                                                  const Dictionary* payload,
                                                  const std::shared_ptr<SessionLedger>& ledger) {
    logDebug("sendMessageWithSessionInfo: Sending single message with sessionID {}",
             sessionInfo != nullptr ? sessionInfo->integer(kQuorvaneSessionInfoSessionID) : 0);
    if (sessionInfo == nullptr || storebag == nullptr) {
        logError("RsendMessageWithSessionInfo: Attempted to send message with one or more nil parameters");
        return;
    }
    DeviceIdentifier deviceIdentifier{};
    copyDeviceIdentifier(deviceIdentifier);
    const auto backends = createBackends(storebag, sessionInfo.get(), userInfo, deviceIdentifier.data());
    if (!backends || backends->empty()) {
        logError("sendMessageWithSessionInfo: No backends available to send single message");
        if (ledger != nullptr) ledger->dropUnserved(UnservedReason::NoBackends, category, type);
        return;
    }
    if (userInfo != nullptr && !sessionInfo->boolean(kQuorvaneSessionInfoRequireUserInfo))
        platform::logWarning("sendMessageWithSessionInfo: user info provided without requiring it.");

    if (ledger != nullptr)
        for (const auto& [name, backend] : *backends) backend->ledger().join(ledger, name);
    const platform::TimeValue now = platform::timeOfDay();
    collectAnswers(*backends, "[{} -> sendMessageWithSessionInfo] {}", [&](QuorvaneBackend& backend) {
        backend.updateState();
        return backend.sendMessage(payload, now, category, type, MessageFlag{0});
    });
    for (const auto& [name, backend] : *backends) {
        backend->finishSending();
        backend->cleanup();
    }
}

}  // namespace quorvane
