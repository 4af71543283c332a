#include "backends/EventRecord.h"

#include "backends/HTTPSPostBackend.h"
#include "platform/base/Log.h"
#include "platform/device/Locale.h"
#include "util/Conversions.h"
#include "util/Environment.h"

#include <array>
#include <utility>

namespace quorvane {

namespace {

constexpr std::size_t kRecordKeys = 16;
constexpr std::int32_t kClientTypeWithNumericSessionID = 7;

std::uint8_t internalLevel(bool isInternal) {
    if (environmentType() == EnvironmentType::Seed) return 2;
    return isInternal ? 1 : 0;
}

}  // namespace

std::string_view senderCode(std::int32_t clientType) {
    static constexpr std::array<std::string_view, 12> codes{"GEN", "SYS", "NET", "LOC", "MED", "PLM",
                                                            "STC", "CFX", "VBX", "TWV", "HNT", "CFL"};
    static constexpr std::string_view unknown = "UNK";
    const bool known = clientType >= 0 && static_cast<std::size_t>(clientType) < codes.size();
    return known ? codes[static_cast<std::size_t>(clientType)] : unknown;
}

EventRecordBuilder::EventRecordBuilder(const Dictionary* payload, std::size_t furtherKeys) {
    if (payload != nullptr) {
        _next = payload->begin();
        _end = payload->end();
    }
    _record.reserve(static_cast<std::size_t>(_end - _next) + furtherKeys);
}

void EventRecordBuilder::add(std::string_view key, Value value) {
    for (; _next != _end && _next->key < key; ++_next) _record.set(_next->key, _next->value);
    if (_next != _end && _next->key == key) ++_next;
    _record.set(key, std::move(value));
}

void EventRecordBuilder::addIfPresent(std::string_view key, const std::optional<std::string>& text) {
    if (text) add(key, *text);
}

Dictionary EventRecordBuilder::finish() {
    for (; _next != _end; ++_next) _record.set(_next->key, _next->value);
    return std::move(_record);
}

Dictionary HTTPSPostBackend::createEventDictfromPayload(const Dictionary* payload, TimeValue timestamp,
                                                        std::uint16_t method, std::uint16_t respCode) const {
    const std::int64_t startMinute = roundDownToMinute(static_cast<std::int64_t>(startTimeStamp()));
    const double elapsed = secondsFromTimeValue(timestamp) - startTimeStamp();
    const double clientTime = finiteOrMinusOne(static_cast<double>(startMinute) + elapsed);
    const std::size_t userInfoKeys = userInfoDict() != nullptr ? userInfoDict()->size() : 0;

    EventRecordBuilder record(payload, kRecordKeys + userInfoKeys);
    record.addIfPresent("_build", buildVersion());
    record.add("_clientTS", clientTime);
    record.add("_clientVersion", clientVersion());
    record.add("_eventNumber", eventID());
    record.add("_internal", internalLevel(isInternal()));
    record.add("_method", method);
    record.addIfPresent("_osVersion", productVersion());
    record.addIfPresent("_productFamily", productFamily());
    record.addIfPresent("_productModel", hardwareType());
    record.add("_reportVers", selfVersion());
    record.add("_sender", senderCode(compType()));
    if (auto sessionID = recordedSessionID()) record.add("_sessionID", *std::move(sessionID));
    record.add("_startTS", startMinute);
    record.add("_status", respCode);
    record.add("_timezoneOffset", platform::timeZoneOffset());
    record.add("eventTime", clientTime);
    return record.finish();
}

std::optional<Value> HTTPSPostBackend::recordedSessionID() const {
    if (_extrasOnInternal != 0 && isInternal() && compType() == kClientTypeWithNumericSessionID)
        return Value(sessionID());
    if (auto combined = combinedSessionIDString()) return Value(*std::move(combined));
    return std::nullopt;
}

void HTTPSPostBackend::prepareEventForMessage(Dictionary& event) const {
    if (userInfoDict() != nullptr) event.merge(*userInfoDict());
    _filters.filterEvent(event);
}

std::optional<Dictionary> HTTPSPostBackend::sessionStopPayload(const Dictionary* payload) const {
    platform::logDebug(
        "HTTPSPostBackend(sendMessage): Adding dnu type and sampling threshold to SESSION_TYPE_STOP message dictionary");
    if (payload == nullptr) {
        platform::logError("HTTPSPostBackend(sendMessage): SESSION_TYPE_STOP message dictionary is nil");
        return std::nullopt;
    }
    Dictionary extended = *payload;
    extended.set("Opt", static_cast<std::int32_t>(_dnuType));
    extended.set("SamplingThreshold", samplingThreshold().value_or(Value(-1)));
    extended.set("OverrideSampling", _overrideSampling.value_or(Value(-1)));
    extended.set("Batch", static_cast<std::uint8_t>(batchEvents()));
    return extended;
}

}  // namespace quorvane
