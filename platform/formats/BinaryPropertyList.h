#pragma once

#include "platform/base/Result.h"
#include "platform/value/Value.h"

#include <cstdint>
#include <span>

namespace quorvane::platform {

/// Parses a binary property list. libplist is no help with bytes from a server: it follows references as deep
/// as they go, on the stack, writes a value out anew wherever it is referred to, so that a few hundred bytes
/// ask for more memory than there is, and asserts that no key has a NUL in it.
Result<Value> parseBinaryPropertyList(std::span<const std::uint8_t> bytes);

}  // namespace quorvane::platform
