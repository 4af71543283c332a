#pragma once

#include "platform/base/Result.h"
#include "platform/value/Value.h"

#include <set>
#include <string>
#include <string_view>

namespace quorvane::collector {

/// A posted message, checked.
struct EventEnvelope {
    std::string clientID;
    double postTime = 0;
    Array events;  ///< each one a Dictionary with every key a record must have
};

/// Keys that the deployment's storebags filter out of records, and which therefore may be missing.
using RemovedKeys = std::set<std::string, std::less<>>;

/// Checks a posted message: "postTime", "clientId", "events", and in every event the keys that a device
/// writes into each record. A key whose value a filter replaces by its SHA-256 digest counts as present. A
/// message with neither "clientId" nor "events" is what a device without an identifier sends; it has no
/// events. The error says why the message is refused, in words that hold no text of the sender's.
platform::Result<EventEnvelope> checkEnvelope(Value message, const RemovedKeys& removed);

/// Whether that is a key every record has.
bool isRecordKey(std::string_view key);

}  // namespace quorvane::collector
