#include "platform/Log.h"
#include "session/QuorvanedSession.h"

#include <mutex>

namespace quorvane {

void QuorvanedSession::aggregateMessage(double timestamp, std::uint16_t category, std::uint16_t type,
                                        const Dictionary* payload) {
    bool ownAggregator = false;
    {
        // Keeps the ancestor in its group until it has the event.
        const std::scoped_lock lock(_sessionDelegate.lock());
        if (QuorvanedSession* ancestor = _sessionDelegate.getAncestorWithAggregatorForSession(*this)) {
            ancestor->sendToAggregator(_sessionInfo.own().get(), timestamp, category, type, payload);
            return;
        }
        // Read here, so that an ancestor which starts to aggregate meanwhile cannot make the event reach
        // nobody.
        ownAggregator = hasAggregator();
    }
    if (ownAggregator) sendToAggregator(_sessionInfo.own().get(), timestamp, category, type, payload);
}

/// An aggregating client always sees its own session info, whoever sent the event.
void QuorvanedSession::sendToAggregator(const Dictionary*, double timestamp, std::uint16_t category,
                                        std::uint16_t type, const Dictionary* payload) {
    static const Dictionary none;
    const auto sessionInfo = _sessionInfo.load();
    const auto error = _connection->sendMessageToClient(sessionInfo != nullptr ? *sessionInfo : none,
                                                        timestamp, category, type, payload);
    if (error) platform::logError("sendMessageWithDictionary: Failed to get remote object proxy: {}", *error);
}

void QuorvanedSession::shutdownSessionAggregation() {
    platform::logDebug("shutdownSessionAggregation: Disable aggregation module for session {}", sessionID());
    if (_hasAggregator.exchange(false)) sendToAggregator(nullptr, 0, 0, 0, nullptr);
}

}  // namespace quorvane
