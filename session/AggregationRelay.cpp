#include "platform/base/Log.h"
#include "platform/base/RateLimitedCount.h"
#include "platform/base/ThreadAnnotations.h"
#include "session/QuorvanedSession.h"

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

namespace quorvane {

namespace {

/// Other sessions' clients decide how many events an aggregator cannot be given.
std::uint64_t addLostEvent() {
    static platform::Mutex mutex;
    static platform::RateLimitedCount lost;
    const platform::MutexLock lock(mutex);
    lost.add();
    return lost.takeDue(std::chrono::steady_clock::now());
}

void logLostEvent(const std::string& error) {
    const std::uint64_t lost = addLostEvent();
    if (lost == 0) return;
    const std::string others = lost > 1 ? " (and " + std::to_string(lost - 1) + " more)" : "";
    platform::logError("sendMessageWithDictionary: Failed to get remote object proxy: {}{}", error, others);
}

}  // namespace

void QuorvanedSession::aggregateMessage(double timestamp, std::uint16_t category, std::uint16_t type,
                                        const Dictionary* payload) {
    // The lock keeps the ancestor in its group until it has the event, and the end of this session's own
    // aggregation from overtaking it. It is also held while a storebag is downloaded, so a session that has
    // neither an aggregator nor an ancestor does without it.
    std::unique_lock lock(_sessionDelegate.lock(), std::defer_lock);
    if (hasAggregator() || getSessionHierarchy() > 0) lock.lock();
    QuorvanedSession* aggregator = _sessionDelegate.getAncestorWithAggregatorForSession(*this);
    if (aggregator == nullptr && hasAggregator()) aggregator = this;
    if (aggregator == nullptr) return;
    _ledger->relayed.add(1);
    aggregator->sendToAggregator(_sessionInfo.own().get(), timestamp, category, type, payload);
}

/// An aggregating client always sees its own session info, whoever sent the event.
void QuorvanedSession::sendToAggregator(const Dictionary*, double timestamp, std::uint16_t category,
                                        std::uint16_t type, const Dictionary* payload) {
    static const Dictionary none;
    const auto sessionInfo = _sessionInfo.load();
    _connection->sendMessageToClient(sessionInfo != nullptr ? *sessionInfo : none, timestamp, category, type,
                                     payload, logLostEvent);
}

void QuorvanedSession::shutdownSessionAggregation() {
    platform::logDebug("shutdownSessionAggregation: Disable aggregation module for session {}", sessionID());
    if (_hasAggregator.exchange(false)) sendToAggregator(nullptr, 0, 0, 0, nullptr);
}

}  // namespace quorvane
