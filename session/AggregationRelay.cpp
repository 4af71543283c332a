#include "platform/base/Log.h"
#include "session/QuorvanedSession.h"

#include <mutex>
#include <string>

namespace quorvane {

void QuorvanedSession::aggregateMessage(double timestamp, std::uint16_t category, std::uint16_t type,
                                        const Dictionary* payload) {
    // The lock keeps the ancestor in its group until it has the event, and the end of this session's own
    // aggregation from overtaking it. It is also held while a storebag is downloaded, so a session that has
    // neither an aggregator nor an ancestor does without it.
    std::unique_lock lock(_sessionDelegate.lock(), std::defer_lock);
    if (hasAggregator() || getSessionHierarchy() > 0) lock.lock();
    QuorvanedSession* aggregator = _sessionDelegate.getAncestorWithAggregatorForSession(*this);
    if (aggregator == nullptr && hasAggregator()) aggregator = this;
    if (aggregator != nullptr)
        aggregator->sendToAggregator(_sessionInfo.own().get(), timestamp, category, type, payload);
}

/// An aggregating client always sees its own session info, whoever sent the event.
void QuorvanedSession::sendToAggregator(const Dictionary*, double timestamp, std::uint16_t category,
                                        std::uint16_t type, const Dictionary* payload) {
    static const Dictionary none;
    const auto sessionInfo = _sessionInfo.load();
    _connection->sendMessageToClient(
        sessionInfo != nullptr ? *sessionInfo : none, timestamp, category, type, payload,
        [](const std::string& error) {
            platform::logError("sendMessageWithDictionary: Failed to get remote object proxy: {}", error);
        });
}

void QuorvanedSession::shutdownSessionAggregation() {
    platform::logDebug("shutdownSessionAggregation: Disable aggregation module for session {}", sessionID());
    if (_hasAggregator.exchange(false)) sendToAggregator(nullptr, 0, 0, 0, nullptr);
}

}  // namespace quorvane
