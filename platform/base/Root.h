#pragma once

#include <string>
#include <string_view>

namespace quorvane::platform {

/// The absolute path with the folder named by the environment variable QUORVANE_ROOT in front of it, or the
/// path as it stands when the variable is unset or empty. The variable is read once, on first use.
std::string rooted(std::string_view absolutePath);

}  // namespace quorvane::platform
