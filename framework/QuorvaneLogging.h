#pragma once

#include <string_view>

namespace quorvane {

/// Starts logging to the system log under the ident and the facility (syslog(3) name, any case).
void startLogging(const char* ident, std::string_view facility);

}  // namespace quorvane
