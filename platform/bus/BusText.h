#pragma once

#include <string_view>

namespace quorvane::platform {

/// Whether a message can carry the text as the bus library reads it: UTF-8 without a NUL and without
/// Unicode's noncharacters, which other bus libraries let pass. Thread-safe.
bool isBusText(std::string_view text);

}  // namespace quorvane::platform
