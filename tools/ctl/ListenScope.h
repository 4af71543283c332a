#pragma once

#include "tools/ctl/CtlOptions.h"

#include <string>

namespace quorvane::ctl {

/// What the aggregating session that this program has started receives, and what it cannot, over several
/// lines.
std::string scopeOfListening(const SessionOptions& options);

}  // namespace quorvane::ctl
