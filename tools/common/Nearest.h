#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvane::tools {

/// The known word that was probably meant: the one with the fewest letters added, left out, changed or
/// swapped with the next, if they are no more than two. Of several the first.
std::optional<std::string> nearest(std::string_view word, const std::vector<std::string>& known);

}  // namespace quorvane::tools
