#pragma once

#include <fmt/core.h>

#include <string_view>

namespace quorvane {

/// Appends one line, "(date) message", to the local message log and keeps its folder down to one file younger
/// than a day and, from the default "message_log_bytes" on, smaller than that. Blocks on the file system;
/// callable from any thread.
void writeToLogFile(std::string_view message);

template <typename... Arguments>
void writeToLogFile(fmt::format_string<const Arguments&...> format, const Arguments&... arguments) {
    writeToLogFile(std::string_view(fmt::format(format, arguments...)));
}

}  // namespace quorvane
