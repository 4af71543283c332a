#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace quorvane::platform {

/// The line, counted from 1, on which a TOML text first nests deeper than a value may, or nothing. Dotted
/// keys, table headers, arrays and inline tables all nest. toml++ bounds only the last two, and ends what it
/// has read by recursion: a key of some thousand parts overflows the stack.
std::optional<std::size_t> lineNestedTooDeep(std::string_view text);

}  // namespace quorvane::platform
