#pragma once

#include "platform/value/Value.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorvane {

/// The code that records and posts carry for a client type.
std::string_view senderCode(std::int32_t clientType);

/// What all records of a session have in common.
struct RecordFacts {
    std::optional<std::string> build;
    std::uint16_t clientVersion;
    std::optional<std::string> osVersion;
    std::optional<std::string> productFamily;
    std::optional<std::string> productModel;
    std::string reportVersion;
    std::int32_t clientType;
    std::optional<Value> sessionID;
    std::int64_t startMinute;
    const Dictionary* userInfo;  ///< null for none; borrowed for the call
};

/// What differs from event to event, beside the payload.
struct EventFacts {
    double clientTime;
    std::uint16_t eventNumber;
    std::uint8_t internalLevel;
    std::uint16_t method;
    std::uint16_t status;
    long timeZoneOffset;
};

/// Makes records from a prepared one, in which only the event's own values change: the payload, the record's
/// own keys over it, the user info over both. Not thread-safe.
class RecordTemplate {
  public:
    RecordTemplate() = default;
    explicit RecordTemplate(const RecordFacts& facts);

    /// The payload may be null.
    Dictionary record(const Dictionary* payload, const EventFacts& event);

  private:
    /// The values that change, in the order of their keys.
    enum Changing : std::size_t {
        ClientTime,
        EventNumber,
        Internal,
        Method,
        Status,
        TimeZoneOffset,
        EventTime,
        kChanging
    };

    void set(Changing which, Value value);

    Dictionary _prepared;
    /// Where the values lie; past the end for one that the user info replaces.
    std::size_t _at[kChanging] = {};
};

}  // namespace quorvane
