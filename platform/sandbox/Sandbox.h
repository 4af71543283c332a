#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quorvane::platform {

/// Confines the process, for good, to the profile /usr/share/quorvane/sandbox/NAME.toml (see
/// SandboxProfile.h) and proves that the confinement holds. Answers nothing, or why it failed; after a
/// failure the process may be confined in part and should end.
///
/// Must run while the calling thread is the only one, because threads that exist already would stay outside.
/// Files and sockets that are open already stay usable. Programs cannot gain privileges afterwards.
std::optional<std::string> applySandboxProfile(std::string_view name);

}  // namespace quorvane::platform
