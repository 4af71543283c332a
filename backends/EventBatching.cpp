#include "backends/HTTPSPostBackend.h"
#include "platform/base/Log.h"

#include <utility>

namespace quorvane {

using platform::logDebug;
using platform::MutexLock;

namespace {

constexpr std::uint16_t kSessionStop = 1;

bool promotesSampledOut(MessageFlag flag) {
    return flag == MessageFlag{2} || flag == MessageFlag{3};
}

}  // namespace

QuorvaneBackend::Answer HTTPSPostBackend::sendMessage(const Dictionary* payload, TimeValue timestamp,
                                                      std::uint16_t method, std::uint16_t respCode, EventID,
                                                      MessageFlag flag) {
    if (state() == BackendState::Disabled) return std::nullopt;

    std::optional<Dictionary> extended;
    if (respCode == kSessionStop) extended = sessionStopPayload(payload);
    Dictionary event =
        createEventDictfromPayload(extended ? &*extended : payload, timestamp, method, respCode);
    prepareEventForMessage(event);

    if (promotesSampledOut(flag)) replaceState(BackendState::SampledOut, BackendState::Enabled);
    if (mustHold(flag)) {
        logDebug("HTTPSPostBackend(sendMessage): Batching {}, {:d}, {:d}", static_cast<int>(state()),
                 batchEvents(), requireUserInfo());
        batchEvent(std::move(event));
        return std::nullopt;
    }
    if (state() == BackendState::Enabled && !batchEvents() && holdsEvents()) {
        logDebug(
            "HTTPSPostBackend(sendMessage): Backend has changed its state to 'Enabled', batching is not requested and some events have already been batched. Forcing Flush here to keep events in order.");
        flush(nullptr);
    }
    logDebug("HTTPSPostBackend(sendMessage): Sending {}, {:d}, {:d}", static_cast<int>(state()),
             batchEvents(), requireUserInfo());
    Array events;
    events.emplace_back(std::move(event));
    Answer prettyJson;
    post(std::move(events), flag, method, respCode, &prettyJson);
    return prettyJson;
}

bool HTTPSPostBackend::mustHold(MessageFlag flag) const {
    if (flag != MessageFlag{0} && flag != MessageFlag{2}) return false;
    const BackendState current = state();
    return current == BackendState::WaitingForUserInfo || current == BackendState::SampledOut ||
           batchEvents() || awaitsUserInfo();
}

bool HTTPSPostBackend::holdsEvents() const {
    const MutexLock lock(_lock);
    return _batchedEvents && !_batchedEvents->empty();
}

void HTTPSPostBackend::batchEvent(Dictionary event) {
    const std::int64_t method = event.integer("_method");
    std::int32_t count = openBatch(method);
    if (count > _eventThreshold) {
        logDebug(
            "HTTPSPostBackend(batchEvent): Flushing all batched events as we reached event threshold for method {}",
            method);
        flush(nullptr);
        count = 0;
    }
    if (hold(event, method, count + 1)) return;
    // What is held may be posted to make room.
    flush(nullptr);
    count = openBatch(method);
    if (!hold(event, method, count + 1)) warnOfDrop();
}

std::int32_t HTTPSPostBackend::openBatch(std::int64_t method) {
    const MutexLock lock(_lock);
    if (!_batchedEvents) _batchedEvents.emplace();
    const auto held = _eventMethodCounts.find(method);
    return held != _eventMethodCounts.end() ? held->second : 0;
}

/// False, and the event stays the caller's, when there is no room for it.
bool HTTPSPostBackend::hold(Dictionary& event, std::int64_t method, std::int32_t count) {
    const std::size_t bytes = sizeof(Value) + platform::heldBytes(event);
    const MutexLock lock(_lock);
    // A flush that posted took the batch away, and the record that caused it goes with it, on purpose.
    if (_batchedEvents) {
        if (!_heldBytes.add(bytes)) return false;
        _batchedEvents->emplace_back(std::move(event));
    }
    _eventMethodCounts[method] = count;
    return true;
}

void HTTPSPostBackend::warnOfDrop() {
    {
        const MutexLock lock(_lock);
        if (std::exchange(_dropWarned, true)) return;
    }
    platform::logWarning("HTTPSPostBackend(batchEvent): {} has no room to hold further events and drops them",
                         name());
}

QuorvaneBackend::Answer HTTPSPostBackend::flushMessages() {
    Answer prettyJson;
    flush(&prettyJson);
    return prettyJson;
}

void HTTPSPostBackend::flush(Answer* prettyJson) {
    if (!holdsEvents() || state() != BackendState::Enabled || awaitsUserInfo()) return;
    logDebug("HTTPSPostBackend(flushMessages): called");
    Array events = takeBatch();
    addUserInfo(events);
    post(std::move(events), MessageFlag{0}, std::nullopt, std::nullopt, prettyJson);
}

Array HTTPSPostBackend::takeBatch() {
    const MutexLock lock(_lock);
    Array events = std::move(*_batchedEvents);
    _batchedEvents.reset();
    _eventMethodCounts.clear();
    _heldBytes.clear();
    _dropWarned = false;
    return events;
}

void HTTPSPostBackend::addUserInfo(Array& events) const {
    Dictionary userInfo = userInfoDict() != nullptr ? *userInfoDict() : Dictionary();
    _filters.filterEvent(userInfo);
    if (userInfo.empty()) return;
    // One key stands for all: a record that has it was made with the user info.
    const std::string& tested = userInfo.begin()->key;
    for (Value& event : events) {
        Dictionary& record = *event.dictionary();
        if (record.contains(tested)) continue;
        record.merge(userInfo);
    }
}

void HTTPSPostBackend::setCorrelatedSessionID(const std::string& combinedSessionID) {
    setCombinedSessionIDString(combinedSessionID);
    const MutexLock lock(_lock);
    if (!_batchedEvents) return;
    for (Value& event : *_batchedEvents) event.dictionary()->set("_sessionID", combinedSessionID);
}

void HTTPSPostBackend::post(Array events, MessageFlag flag, std::optional<std::uint16_t> method,
                            std::optional<std::uint16_t> responseCode, Answer* prettyJson) {
    std::optional<Data> message = createMessageForPostAndLogging(std::move(events), prettyJson);
    if (message) postJSONMessage(*std::move(message), flag, method, responseCode);
}

}  // namespace quorvane
