#pragma once

#include <quorvane/Session.h>

namespace quorvane::ctl {

/// Prints which backends report.
void printStates(bool json, const ReportingStates& states);

}  // namespace quorvane::ctl
