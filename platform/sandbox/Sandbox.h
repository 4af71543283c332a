#pragma once

#include "platform/base/Result.h"
#include "platform/sandbox/SandboxProfile.h"

namespace quorvane::platform {

/// Confines the process, for good, to the profile and proves that the confinement holds. After a failure the
/// process may be confined in part and should end.
///
/// Must run while the calling thread is the only one, because threads that exist already would stay outside.
/// Files and sockets that are open already stay usable. Programs cannot gain privileges afterwards.
Result<void> applySandbox(const SandboxProfile& profile);

/// Whether a filter of system calls is in force in this process. Thread-safe.
bool isConfined();

}  // namespace quorvane::platform
