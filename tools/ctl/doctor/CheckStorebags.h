#pragma once

#include "platform/value/Value.h"
#include "tools/ctl/doctor/Finding.h"

#include <vector>

namespace quorvane::ctl {

/// Fetches each storebag as the daemon would, up to 15 s each.
///   told  what the daemon tells of those that it was asked for; where it was for none, that of client type 5
///         is fetched
Findings checkStorebags(const std::vector<Dictionary>& told);

}  // namespace quorvane::ctl
