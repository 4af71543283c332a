#include "collector/EventEnvelope.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <string_view>
#include <utility>

#include <fmt/format.h>

namespace quorvane::collector {

using platform::failure;
using platform::Result;

namespace {

enum class Shape { Text, Number, Whole, Whole16, Whole8 };

struct RecordKey {
    std::string_view name;
    Shape shape;
};

constexpr std::array<RecordKey, 15> kRecordKeys{{{"_build", Shape::Text},
                                                 {"_clientTS", Shape::Number},
                                                 {"_clientVersion", Shape::Whole16},
                                                 {"_eventNumber", Shape::Whole16},
                                                 {"_internal", Shape::Whole8},
                                                 {"_method", Shape::Whole16},
                                                 {"_osVersion", Shape::Text},
                                                 {"_productFamily", Shape::Text},
                                                 {"_productModel", Shape::Text},
                                                 {"_reportVers", Shape::Text},
                                                 {"_sender", Shape::Text},
                                                 {"_startTS", Shape::Whole},
                                                 {"_status", Shape::Whole16},
                                                 {"_timezoneOffset", Shape::Whole},
                                                 {"eventTime", Shape::Number}}};

bool isNumber(const Value& value) {
    return value.isNumber() && value.kind() != Value::Kind::Boolean;
}

bool isWholeUpTo(const Value& value, std::int64_t maximum) {
    return value.isInteger() && value.integer() >= 0 && value.integer() <= maximum;
}

bool isDigest(const Value& value) {
    const std::string* text = value.string();
    return text != nullptr && text->size() == 64 &&
           text->find_first_not_of("0123456789abcdef") == std::string::npos;
}

bool hasShape(const Value& value, Shape shape) {
    switch (shape) {
        case Shape::Text:
            return value.string() != nullptr;
        case Shape::Number:
            return isNumber(value) || isDigest(value);
        case Shape::Whole:
            return value.isInteger() || isDigest(value);
        case Shape::Whole16:
            return isWholeUpTo(value, std::numeric_limits<std::uint16_t>::max()) || isDigest(value);
        case Shape::Whole8:
            return isWholeUpTo(value, std::numeric_limits<std::uint8_t>::max()) || isDigest(value);
    }
    return false;
}

std::string_view described(Shape shape) {
    switch (shape) {
        case Shape::Text:
            return "a text";
        case Shape::Number:
            return "a number";
        case Shape::Whole:
            return "a whole number";
        case Shape::Whole16:
            return "a whole number from 0 to 65535";
        case Shape::Whole8:
            return "a whole number from 0 to 255";
    }
    return "";
}

Result<void> checkRecord(const Value& event, const RemovedKeys& removed) {
    const Dictionary* record = event.dictionary();
    if (record == nullptr) return failure("is no object");
    for (const RecordKey& key : kRecordKeys) {
        const Value* value = record->find(key.name);
        if (value == nullptr && !removed.contains(key.name))
            return failure(fmt::format("has no '{}'", key.name));
        if (value != nullptr && !hasShape(*value, key.shape))
            return failure(fmt::format("has a '{}' that is not {}", key.name, described(key.shape)));
    }
    return {};
}

Result<void> checkTopLevel(const Dictionary* envelope) {
    if (envelope == nullptr) return failure("the message is no object");
    const Value* postTime = envelope->find("postTime");
    if (postTime == nullptr || !isNumber(*postTime)) return failure("'postTime' is not a number");
    if (envelope->contains("clientId") != envelope->contains("events"))
        return failure("'clientId' and 'events' come together or not at all");
    if (!envelope->contains("events")) return {};
    if (envelope->string("clientId") == nullptr) return failure("'clientId' is not a text");
    if (envelope->array("events") == nullptr) return failure("'events' is not an array");
    return {};
}

}  // namespace

Result<EventEnvelope> checkEnvelope(Value message, const RemovedKeys& removed) {
    Dictionary* envelope = message.dictionary();
    if (const auto checked = checkTopLevel(envelope); !checked) return failure(checked.error().message);
    EventEnvelope result;
    result.postTime = envelope->find("postTime")->real();
    result.clientID = envelope->text("clientId").value_or("");
    if (Value* events = envelope->find("events")) result.events = std::move(*events->array());
    for (std::size_t index = 0; index < result.events.size(); ++index)
        if (const auto checked = checkRecord(result.events[index], removed); !checked)
            return failure(fmt::format("event {} {}", index, checked.error().message));
    return result;
}

bool isRecordKey(std::string_view key) {
    return std::any_of(kRecordKeys.begin(), kRecordKeys.end(),
                       [&](const RecordKey& known) { return known.name == key; });
}

}  // namespace quorvane::collector
