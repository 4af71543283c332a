#pragma once

#include "platform/base/Result.h"
#include "platform/value/Value.h"

#include <cstdint>
#include <span>

namespace quorvane::platform {

/// Parses a binary property list. Objects in it refer to each other by number: an object that refers to
/// itself, or one that is referred to many times and so written out as often, would make more values of a few
/// hundred bytes than there is memory for. The limits on a value's depth, number and bytes end both.
Result<Value> parseBinaryPropertyList(std::span<const std::uint8_t> bytes);

}  // namespace quorvane::platform
