#pragma once

#include "platform/base/Result.h"
#include "platform/value/Value.h"

#include <optional>
#include <span>

namespace quorvane::platform {

/// Parses an XML or binary property list, in time that grows with its size. Nesting is bounded to 128 levels,
/// the expanded number of values to one million and their texts and data to 64 MiB, whatever the bytes say.
/// An integer is signed where it fits; of equal keys the last counts. UIDs and sets are an error.
/// Thread-safe.
Result<Value> parsePropertyList(std::span<const std::uint8_t> bytes);

/// Writes the value as XML; nothing when a text in it is not UTF-8 or holds what XML cannot, or a date in it
/// is not between 1933 and 2069. Of dates, whole seconds are kept.
std::optional<Data> xmlPropertyList(const Value& value);

/// Writes the value in the binary form; nothing when a text in it is not UTF-8.
std::optional<Data> binaryPropertyList(const Value& value);

}  // namespace quorvane::platform
