#pragma once

#include "platform/value/Value.h"

#include <optional>
#include <string>
#include <string_view>

namespace quorvane::platform {

/// The value as JSON (RFC 8259) in UTF-8; nothing when it holds a number that is not finite, a text that is
/// not UTF-8, a date or data. Dictionaries are written in their sorted order. Thread-safe.
std::optional<Data> compactJson(const Value& value);
std::optional<std::string> prettyJson(const Value& value);

/// Parses one JSON text; nothing when it is malformed, holds null, nests deeper than 128 levels or
/// holds more than a million values. An integer is signed where it fits; of equal keys the last counts.
std::optional<Value> parseJson(std::string_view text);

}  // namespace quorvane::platform
