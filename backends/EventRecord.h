#pragma once

#include "backends/ReportingRules.h"
#include "platform/value/Value.h"
#include "util/Environment.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorvane {

/// The code that records and posts carry for a client type.
std::string_view senderCode(std::int32_t clientType);

/// How far the device belongs to its maker, as records tell it.
std::uint8_t internalLevel(bool isInternal, EnvironmentType environment);

struct SessionIDs {
    std::uint32_t number;
    std::optional<std::string> combined;  ///< with those of its ancestors
};

/// By which of its identifiers records name the session.
std::optional<Value> recordedSessionID(const SessionIDs& session, std::int32_t clientType,
                                       bool tellsIdentifier);

/// The type of a session's last event, which tells how the session was sampled.
inline constexpr std::uint16_t kSessionStop = 1;

struct SamplingSettings {
    DnuType dnuType;
    std::optional<Value> threshold;
    std::optional<Value> override;
    bool batchEvents;
};

/// The last event's payload with what it tells beside it.
Dictionary withSamplingSettings(Dictionary payload, const SamplingSettings& settings);

/// Makes seconds since 1970 of dates, and drops every key whose value is of a kind that JSON cannot carry,
/// each with a warning.
void removeUnserialisable(Dictionary& record);

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
