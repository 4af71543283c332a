#pragma once

#include "platform/value/Value.h"

#include <string_view>

namespace quorvane::tools {

/// Writes what checkBag() finds to standard error, one line each. Throws a Failure when it finds something
/// and strict is set.
void warnAbout(const Dictionary& bag, std::string_view name, bool strict);

/// Throws a Failure for a bag that devices of no environment take.
void refuseUntakeable(const Dictionary& bag, std::string_view name);

}  // namespace quorvane::tools
