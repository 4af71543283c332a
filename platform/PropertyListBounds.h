#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace quorvane::platform {

/// libplist follows nesting as deep as the bytes go, on the stack, and writes a value out anew wherever a
/// binary list refers to it: a few hundred bytes can ask for more memory than there is. So the shape of a
/// list is measured before libplist sees it. Says what is wrong with it: deeper than 128 levels, more than a
/// million values or 64 MiB of text and data when written out, a binary list that refers to itself or to what
/// it does not hold, or a truncated one. Says nothing about values that are merely malformed.
std::optional<std::string> outOfBounds(std::span<const std::uint8_t> bytes);

}  // namespace quorvane::platform
