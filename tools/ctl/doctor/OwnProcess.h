#pragma once

#include "platform/base/Result.h"

#include <functional>
#include <string>

namespace quorvane::ctl {

/// Runs the function in a process of its own, which ends then, and hands on what it returned. Only the
/// calling thread goes on there.
platform::Result<std::string> inOwnProcess(const std::function<std::string()>& function);

}  // namespace quorvane::ctl
