#pragma once

#include "platform/base/Result.h"

#include <string_view>

namespace quorvane::platform {

/// Confines the process, for good, to the profile /usr/share/quorvane/sandbox/NAME.toml, as Sandbox.h says.
/// An error in the file is told with the file, and the key or the line.
Result<void> applySandboxProfile(std::string_view name);

}  // namespace quorvane::platform
