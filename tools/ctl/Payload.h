#pragma once

#include "tools/ctl/CtlOptions.h"

#include <quorvane/Session.h>

namespace quorvane::ctl {

/// The event that the command line describes; without a payload when it gives none. Throws a Failure of
/// status kUsage.
Event eventOf(const EventOptions& options, std::uint32_t flag = 0);

}  // namespace quorvane::ctl
