#include "backends/HTTPSPostBackend.h"
#include "backends/MessageFlags.h"
#include "platform/base/Log.h"

#include <cstddef>
#include <utility>

namespace quorvane {

using platform::logDebug;

QuorvaneBackend::Answer HTTPSPostBackend::sendMessage(const Dictionary* payload, TimeValue timestamp,
                                                      std::uint16_t method, std::uint16_t respCode, EventID,
                                                      MessageFlag flag) {
    if (const Standing now = standing(); now.state == BackendState::Disabled) {
        ledger().drop(dropReasonOf(now.reason));
        return std::nullopt;
    }

    std::optional<Dictionary> extended;
    if (respCode == kSessionStop) extended = sessionStopPayload(payload);
    Dictionary event =
        createEventDictfromPayload(extended ? &*extended : payload, timestamp, method, respCode);
    _filters.filterEvent(event);

    if (promotesSampledOut(flag))
        replaceState(BackendState::SampledOut, {BackendState::Enabled, ReportingReason::AskedByEvent});
    if (isHeld(flag, state(), batchEvents(), awaitsUserInfo())) {
        logDebug("HTTPSPostBackend(sendMessage): Batching {}, {:d}, {:d}", static_cast<int>(state()),
                 batchEvents(), requireUserInfo());
        batchEvent(std::move(event));
        return std::nullopt;
    }
    if (state() == BackendState::Enabled && !batchEvents() && !_batch.isEmpty()) {
        logDebug(
            "HTTPSPostBackend(sendMessage): Backend has changed its state to 'Enabled', batching is not requested and some events have already been batched. Forcing Flush here to keep events in order.");
        flush(nullptr, Order::Ended);
    }
    logDebug("HTTPSPostBackend(sendMessage): Sending {}, {:d}, {:d}", static_cast<int>(state()),
             batchEvents(), requireUserInfo());
    finishSending();
    Answer prettyJson;
    post(alone(std::move(event)), flag, method, respCode, &prettyJson);
    return prettyJson;
}

/// The current event's record.
HTTPSPostBackend::Records HTTPSPostBackend::alone(Dictionary event) const {
    Records records{{}, ledger().current()};
    records.records.emplace_back(std::move(event));
    return records;
}

void HTTPSPostBackend::batchEvent(Dictionary event) {
    const std::int64_t method = event.integer("_method");
    std::int32_t count = _batch.open(method);
    if (count > _eventThreshold) {
        logDebug(
            "HTTPSPostBackend(batchEvent): Flushing all batched events as we reached event threshold for method {}",
            method);
        finishSending();
        _completed = takeBatch();
        count = 0;
    }
    if (hold(event, method, count + 1)) return;
    // What is held may be posted to make room, and so may a record for which there is none.
    flush(nullptr);
    count = _batch.open(method);
    if (!hold(event, method, count + 1)) postOrDrop(std::move(event));
}

/// False when there is no room for the event. A batch that was taken is closed, and the record that caused it
/// is lost with it, on purpose.
bool HTTPSPostBackend::hold(Dictionary& event, std::int64_t method, std::int32_t count) {
    const EventBatch::Outcome outcome = _batch.hold(event, method, count, ledger().account());
    if (outcome == EventBatch::Outcome::Held) ledger().hold();
    if (outcome == EventBatch::Outcome::Lost) ledger().drop(DropReason::ThresholdRecord);
    return outcome != EventBatch::Outcome::NoRoom;
}

void HTTPSPostBackend::postOrDrop(Dictionary event) {
    if (!mayFlush()) return dropEvent();
    post(alone(std::move(event)), MessageFlag{0}, std::nullopt, std::nullopt, nullptr);
}

void HTTPSPostBackend::dropEvent() {
    ledger().drop(DropReason::NoRoom);
    if (!_batch.noteDrop()) return;
    platform::logWarning("HTTPSPostBackend(batchEvent): {} has no room to hold further events and drops them",
                         name());
}

QuorvaneBackend::Answer HTTPSPostBackend::flushMessages() {
    Answer prettyJson;
    flush(&prettyJson);
    return prettyJson;
}

void HTTPSPostBackend::flush(Answer* prettyJson, Order order) {
    finishSending();
    postBatch(takeBatch(), prettyJson, order);
}

bool HTTPSPostBackend::continueSending() {
    return _unfinished ? compressStep() : beginPost();
}

bool HTTPSPostBackend::beginPost() {
    Records batch = std::exchange(_completed, {});
    if (batch.records.empty()) return false;
    addUserInfo(batch.records);
    std::optional<Message> message = createMessageForPostAndLogging(std::move(batch), nullptr);
    if (message && _targets.ordinary() == nullptr)
        ledger().drop(DropReason::NoURL, std::exchange(message, std::nullopt)->events);
    if (!message) return false;
    _unfinished.emplace(*std::move(message));
    return true;
}

/// The held records if they may be posted, else none.
HTTPSPostBackend::Records HTTPSPostBackend::takeBatch() {
    if (_batch.isEmpty() || !mayFlush()) return {};
    logDebug("HTTPSPostBackend(flushMessages): called");
    Array records = _batch.take();
    EventGroup events = ledger().take(records.size());
    return {std::move(records), std::move(events)};
}

void HTTPSPostBackend::cleanup() {
    if (_batch.isEmpty()) return;
    const EventGroup events = ledger().take(_batch.take().size());
    const Standing now = standing();
    ledger().drop(now.state == BackendState::Enabled ? DropReason::SessionEnded : dropReasonOf(now.reason),
                  events);
}

void HTTPSPostBackend::postBatch(Records batch, Answer* prettyJson, Order order) {
    if (batch.records.empty()) return;
    addUserInfo(batch.records);
    post(std::move(batch), MessageFlag{0}, std::nullopt, std::nullopt, prettyJson, order);
}

void HTTPSPostBackend::addUserInfo(Array& records) const {
    Dictionary userInfo = userInfoDict() != nullptr ? *userInfoDict() : Dictionary();
    _filters.filterEvent(userInfo);
    if (userInfo.empty()) return;
    // One key stands for all: a record that has it was made with the user info.
    const std::string& tested = userInfo.begin()->key;
    for (Value& each : records) {
        Dictionary& record = *each.dictionary();
        if (record.contains(tested)) continue;
        record.merge(userInfo);
    }
}

void HTTPSPostBackend::setCorrelatedSessionID(const std::string& combinedSessionID) {
    setCombinedSessionIDString(combinedSessionID);
    _batch.setSessionID(combinedSessionID);
}

void HTTPSPostBackend::post(Records records, MessageFlag flag, std::optional<std::uint16_t> method,
                            std::optional<std::uint16_t> responseCode, Answer* prettyJson, Order order) {
    std::optional<Message> message = createMessageForPostAndLogging(std::move(records), prettyJson);
    if (message) postJSONMessage(*std::move(message), flag, method, responseCode, order);
}

}  // namespace quorvane
