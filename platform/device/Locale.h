#pragma once

#include <optional>
#include <string>

namespace quorvane::platform {

/// The territory of the first set variable of LC_ALL, LC_MESSAGES and LANG ("en_US.UTF-8" gives "US").
std::optional<std::string> currentCountryCode();

/// The local time zone's current offset from GMT in seconds, east positive.
long timeZoneOffset();

}  // namespace quorvane::platform
