#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quorvane::platform {

/// Measures an XML property list before libplist sees it, which frees what it has read by recursion, as deep
/// as the tags nest. Says what is wrong: deeper than 128 levels, more than a million elements, or a NUL,
/// which libplist asserts not to meet. Says nothing about a list that is merely malformed.
std::optional<std::string> outOfXmlBounds(std::string_view text);

}  // namespace quorvane::platform
