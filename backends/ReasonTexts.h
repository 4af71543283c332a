#pragma once

#include "backends/BackendState.h"
#include "backends/EventLedger.h"
#include "backends/SessionLedger.h"

#include <string_view>

namespace quorvane {

/// States and reasons in words: a key for programs, which stays as it is, and a text for people.

std::string_view keyOf(BackendState state);
std::string_view keyOf(EventLedger::Fate fate);

std::string_view keyOf(ReportingReason reason);
std::string_view textOf(ReportingReason reason);

std::string_view keyOf(DropReason reason);
std::string_view textOf(DropReason reason);

std::string_view keyOf(UnservedReason reason);
std::string_view textOf(UnservedReason reason);

}  // namespace quorvane
