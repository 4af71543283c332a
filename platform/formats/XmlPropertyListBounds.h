#pragma once

#include "platform/base/Result.h"

#include <string_view>

namespace quorvane::platform {

/// Measures an XML property list before libplist sees it, which frees what it has read by recursion, as deep
/// as the tags nest. An error says what is wrong: deeper than 128 levels, more than a million elements, a
/// NUL, which libplist asserts not to meet, or what could hide tags from this measure: an open quote and
/// declarations in the document type. Says nothing about a list that is merely malformed.
Result<void> outOfXmlBounds(std::string_view text);

}  // namespace quorvane::platform
