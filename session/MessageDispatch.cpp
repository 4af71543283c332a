#include "framework/Keys.h"
#include "platform/base/Log.h"
#include "session/BackendAnswers.h"
#include "session/QuorvanedSession.h"
#include "util/Conversions.h"

#include <algorithm>
#include <optional>
#include <string_view>

namespace quorvane {

using platform::logDebug;

// The client's operations.

void QuorvanedSession::sendMessageWithCategory(std::uint16_t category, std::uint16_t type,
                                               const Dictionary* payload,
                                               const std::function<void(const Answer&)>& reply) {
    logDebug("sendMessageWithCategory: Sending message for session {}", sessionID());
    if (!isServed()) _ledger->dropUnserved(_unserved, category, type);
    const Answer answer = sendMessageWithCategory(category, type, payload);
    if (reply) reply(answer);
}

void QuorvanedSession::sendMessageWithDictionary(const Dictionary& message,
                                                 const std::function<void(const Answer&)>& reply) {
    logDebug("sendMessageWithCategory: Sending message for session {}", sessionID());
    if (!isServed()) dropMessage(_unserved, message);
    const Answer answer = sendMessageWithDictionary(message);
    if (reply) reply(answer);
}

void QuorvanedSession::sendEarlierMessage(std::uint16_t category, std::uint16_t type,
                                          const Dictionary* payload, std::uint32_t flag,
                                          platform::TimeValue time) {
    logDebug("sendMessageWithCategory: Sending message for session {}", sessionID());
    if (!isServed()) _ledger->dropUnserved(_unserved, category, type);
    if (hasBackendsToSend()) dispatch(category, type, payload, MessageFlag{flag}, time);
}

void QuorvanedSession::flushMessagesWithReply(const std::function<void(const Answer&)>& reply) {
    logDebug("flushMessagesWithReply: Flushing messages for session {}", sessionID());
    const Answer answer = flushMessages();
    if (reply) reply(answer);
}

// What they come down to.

Answer QuorvanedSession::sendMessageWithCategory(std::uint16_t category, std::uint16_t type,
                                                 const Dictionary* payload) {
    if (!hasBackendsToSend()) return std::nullopt;
    return dispatch(category, type, payload, MessageFlag{0}, platform::timeOfDay());
}

Answer QuorvanedSession::sendMessageWithDictionary(const Dictionary& message) {
    if (!hasBackendsToSend()) return std::nullopt;
    const Value* category = message.find(kQuorvaneMessageParametersCategory);
    if (category == nullptr) {
        logDebug("sendMessageWithDictionary: Missing mandatory parameter 'category'");
        dropMessage(UnservedReason::Incomplete, message);
        return std::nullopt;
    }
    const Value* type = message.find(kQuorvaneMessageParametersType);
    if (type == nullptr) {
        logDebug("sendMessageWithDictionary: Missing mandatory parameter 'type'");
        dropMessage(UnservedReason::Incomplete, message);
        return std::nullopt;
    }
    const auto flag = static_cast<std::uint32_t>(message.unsignedInteger(kQuorvaneMessageParametersFlag));
    return dispatch(static_cast<std::uint16_t>(category->unsignedInteger()),
                    static_cast<std::uint16_t>(type->unsignedInteger()),
                    message.dictionary(kQuorvaneMessageParametersPayload), MessageFlag{flag},
                    platform::timeOfDay());
}

/// Whether a client's event reaches any backend.
bool QuorvanedSession::isServed() const {
    const auto& backends = _backends.own();
    return backends != nullptr && !backends->empty();
}

void QuorvanedSession::dropMessage(UnservedReason reason, const Dictionary& message) {
    const auto number = [&](std::string_view key) {
        const Value* value = message.find(key);
        return value != nullptr ? std::optional(static_cast<std::uint16_t>(value->unsignedInteger()))
                                : std::nullopt;
    };
    _ledger->dropUnserved(reason, number(kQuorvaneMessageParametersCategory),
                          number(kQuorvaneMessageParametersType));
}

bool QuorvanedSession::hasBackendsToSend() const {
    if (_backends.own() != nullptr) return true;
    logDebug("sendMessageWithDictionary: No backends available to send message");
    return false;
}

Answer QuorvanedSession::dispatch(std::uint16_t category, std::uint16_t type, const Dictionary* payload,
                                  MessageFlag flag, platform::TimeValue time) {
    aggregateMessage(secondsFromTimeValue(time), category, type, payload);
    return collectAnswers(
        *_backends.own(), "[{} -> sendMessageWithDictionary] {}",
        [&](QuorvaneBackend& backend) { return backend.sendMessage(payload, time, category, type, flag); });
}

bool QuorvanedSession::continueSending() {
    const auto& backends = _backends.own();
    if (backends == nullptr) return false;
    return std::any_of(backends->begin(), backends->end(),
                       [](const auto& named) { return named.second->continueSending(); });
}

void QuorvanedSession::internalSendMessage(const Dictionary& message, std::uint16_t method,
                                           std::uint16_t respCode) {
    sendMessageWithCategory(method, respCode, &message);
    while (continueSending()) continue;
    logDebug("internalSendMessage: Sent internal message (method:{} respCode:{})", method, respCode);
}

Answer QuorvanedSession::flushMessages() {
    const auto& backends = _backends.own();
    if (backends == nullptr) {
        logDebug("flushMessages: No backends available to send message");
        return std::nullopt;
    }
    return collectAnswers(*backends, "[{} -> flushMessages] {}",
                          [](QuorvaneBackend& backend) { return backend.flushMessages(); });
}

}  // namespace quorvane
