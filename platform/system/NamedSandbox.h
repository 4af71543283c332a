#pragma once

#include "platform/base/Result.h"
#include "platform/sandbox/SandboxProfile.h"

#include <string>
#include <string_view>

namespace quorvane::platform {

/// /usr/share/quorvane/sandbox/NAME.toml.
std::string sandboxProfileFile(std::string_view name);

/// The profile in that file. An error is told with the file, and the key or the line.
Result<SandboxProfile> sandboxProfileNamed(std::string_view name);

/// Confines the process, for good, to that profile, as Sandbox.h says.
Result<void> applySandboxProfile(std::string_view name);

}  // namespace quorvane::platform
