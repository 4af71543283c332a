#include "backends/EventRecord.h"

#include "backends/HTTPSPostBackend.h"
#include "platform/base/Log.h"
#include "platform/device/Locale.h"
#include "util/Conversions.h"
#include "util/Environment.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

namespace quorvane {

namespace {

constexpr std::int32_t kClientTypeWithNumericSessionID = 7;

/// Whether the value is of a kind that JSON can carry; a date becomes its seconds since 1970.
bool makeSerialisable(Value& value) {
    switch (value.kind()) {
        case Value::Kind::String:
        case Value::Kind::Boolean:
        case Value::Kind::Signed:
        case Value::Kind::Unsigned:
        case Value::Kind::Real:
            return true;
        case Value::Kind::Date:
            value = static_cast<double>(value.date()->microseconds) / 1e6;
            return true;
        default:
            return false;
    }
}

/// The entries of both, in one pass; of two with the same key, the one that lies over the other.
Dictionary laidOver(const Dictionary& under, const Dictionary& over) {
    Dictionary result;
    result.reserve(under.size() + over.size());
    const auto* below = under.begin();
    for (const Dictionary::Entry& entry : over) {
        int order = -1;
        for (; below != under.end() && (order = below->key.compare(entry.key)) < 0; ++below)
            result.set(below->key, below->value);
        if (below != under.end() && order == 0) ++below;
        result.set(entry.key, entry.value);
    }
    for (; below != under.end(); ++below) result.set(below->key, below->value);
    return result;
}

}  // namespace

std::string_view senderCode(std::int32_t clientType) {
    static constexpr std::array<std::string_view, 12> codes{"GEN", "SYS", "NET", "LOC", "MED", "PLM",
                                                            "STC", "CFX", "VBX", "TWV", "HNT", "CFL"};
    static constexpr std::string_view unknown = "UNK";
    const bool known = clientType >= 0 && static_cast<std::size_t>(clientType) < codes.size();
    return known ? codes[static_cast<std::size_t>(clientType)] : unknown;
}

std::uint8_t internalLevel(bool isInternal, EnvironmentType environment) {
    if (environment == EnvironmentType::Seed) return 2;
    return isInternal ? 1 : 0;
}

std::optional<Value> recordedSessionID(const SessionIDs& session, std::int32_t clientType,
                                       bool tellsIdentifier) {
    if (tellsIdentifier && clientType == kClientTypeWithNumericSessionID) return Value(session.number);
    return session.combined ? std::optional<Value>(*session.combined) : std::nullopt;
}

Dictionary withSamplingSettings(Dictionary payload, const SamplingSettings& settings) {
    payload.set("Opt", static_cast<std::int32_t>(settings.dnuType));
    payload.set("SamplingThreshold", settings.threshold.value_or(Value(-1)));
    payload.set("OverrideSampling", settings.override.value_or(Value(-1)));
    payload.set("Batch", static_cast<std::uint8_t>(settings.batchEvents));
    return payload;
}

void removeUnserialisable(Dictionary& record) {
    const auto serialisable = [](Dictionary::Entry& entry) { return makeSerialisable(entry.value); };
    if (std::all_of(record.begin(), record.end(), serialisable)) return;
    Dictionary kept;
    for (auto& entry : record) {
        if (makeSerialisable(entry.value))
            kept.setOwned(std::move(entry.key), std::move(entry.value));
        else
            platform::logWarning(
                "HTTPSPostBackend(createMessageForPostAndLogging): NSJSONSerialization unable to handle key: {}, value: {}",
                entry.key, entry.value);
    }
    record = std::move(kept);
}

RecordTemplate::RecordTemplate(const RecordFacts& facts) {
    static constexpr std::array<std::string_view, kChanging> changing{
        "_clientTS", "_eventNumber", "_internal", "_method", "_status", "_timezoneOffset", "eventTime"};
    for (const std::string_view key : changing) _prepared.set(key, 0);
    const auto setIfPresent = [this](std::string_view key, const auto& fact) {
        if (fact) _prepared.set(key, *fact);
    };
    setIfPresent("_build", facts.build);
    _prepared.set("_clientVersion", facts.clientVersion);
    setIfPresent("_osVersion", facts.osVersion);
    setIfPresent("_productFamily", facts.productFamily);
    setIfPresent("_productModel", facts.productModel);
    _prepared.set("_reportVers", facts.reportVersion);
    _prepared.set("_sender", senderCode(facts.clientType));
    setIfPresent("_sessionID", facts.sessionID);
    _prepared.set("_startTS", facts.startMinute);
    if (facts.userInfo != nullptr) _prepared.merge(*facts.userInfo);
    for (std::size_t which = 0; which < kChanging; ++which) {
        const bool replaced = facts.userInfo != nullptr && facts.userInfo->contains(changing[which]);
        const auto* const at = std::find_if(
            _prepared.begin(), _prepared.end(),
            [&](const Dictionary::Entry& entry) { return !replaced && entry.key == changing[which]; });
        _at[which] = static_cast<std::size_t>(at - _prepared.begin());
    }
}

Dictionary RecordTemplate::record(const Dictionary* payload, const EventFacts& event) {
    set(ClientTime, event.clientTime);
    set(EventNumber, event.eventNumber);
    set(Internal, event.internalLevel);
    set(Method, event.method);
    set(Status, event.status);
    set(TimeZoneOffset, event.timeZoneOffset);
    set(EventTime, event.clientTime);
    return payload != nullptr ? laidOver(*payload, _prepared) : _prepared;
}

void RecordTemplate::set(Changing which, Value value) {
    if (_at[which] < _prepared.size()) _prepared.begin()[_at[which]].value = std::move(value);
}

Dictionary HTTPSPostBackend::createEventDictfromPayload(const Dictionary* payload, TimeValue timestamp,
                                                        std::uint16_t method, std::uint16_t respCode) {
    renewTemplate();
    const double elapsed = secondsFromTimeValue(timestamp) - startTimeStamp();
    return _template.record(payload,
                            {.clientTime = finiteOrMinusOne(static_cast<double>(startMinute()) + elapsed),
                             .eventNumber = eventID(),
                             .internalLevel = internalLevel(isInternal(), environmentType()),
                             .method = method,
                             .status = respCode,
                             .timeZoneOffset = platform::timeZoneOffset()});
}

std::int64_t HTTPSPostBackend::startMinute() const {
    return roundDownToMinute(static_cast<std::int64_t>(startTimeStamp()));
}

void HTTPSPostBackend::renewTemplate() {
    // Read first: a fact that another thread changes meanwhile is taken with the next event.
    const std::uint32_t current = revision();
    if (_templateRevision == current) return;
    _template = RecordTemplate({.build = buildVersion(),
                                .clientVersion = clientVersion(),
                                .osVersion = productVersion(),
                                .productFamily = productFamily(),
                                .productModel = hardwareType(),
                                .reportVersion = selfVersion(),
                                .clientType = compType(),
                                .sessionID = recordedSessionID({sessionID(), combinedSessionIDString()},
                                                               compType(), tellsIdentifier()),
                                .startMinute = startMinute(),
                                .userInfo = userInfoDict().get()});
    _templateRevision = current;
}

std::optional<Dictionary> HTTPSPostBackend::sessionStopPayload(const Dictionary* payload) const {
    platform::logDebug(
        "HTTPSPostBackend(sendMessage): Adding dnu type and sampling threshold to SESSION_TYPE_STOP message dictionary");
    if (payload == nullptr) {
        platform::logError("HTTPSPostBackend(sendMessage): SESSION_TYPE_STOP message dictionary is nil");
        return std::nullopt;
    }
    return withSamplingSettings(*payload, {.dnuType = _dnuType,
                                           .threshold = samplingThreshold(),
                                           .override = _overrideSampling,
                                           .batchEvents = batchEvents()});
}

}  // namespace quorvane
