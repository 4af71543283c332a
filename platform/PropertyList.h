#pragma once

#include "platform/Value.h"

#include <optional>
#include <span>
#include <string>

namespace quorvane::platform {

struct PropertyListError {
    std::string description;
};

using PropertyListResult = std::variant<Value, PropertyListError>;

/// Parses an XML or binary property list. Nesting is bounded to 128 levels and the expanded number of values
/// to one million, whatever the bytes say. Thread-safe.
PropertyListResult parsePropertyList(std::span<const std::uint8_t> bytes);

/// Writes the value; nothing when a text in it is not UTF-8 or holds what XML cannot.
std::optional<Data> xmlPropertyList(const Value& value);
std::optional<Data> binaryPropertyList(const Value& value);

}  // namespace quorvane::platform
