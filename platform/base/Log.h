#pragma once

#include "platform/value/ValueFormat.h"

#include <fmt/core.h>

#include <atomic>
#include <optional>
#include <string>
#include <string_view>

namespace quorvane::platform {

/// Levels of the system log, numbered as in syslog(3).
enum class LogLevel : int { Error = 3, Warning = 4, Info = 6, Debug = 7 };

/// Opens the system log under the ident; the facility is a name of syslog(3) such as "Daemon" (any case).
/// QUORVANE_LOG=stderr[:error|warning|info|debug] in the environment sends lines to standard error instead,
/// each as "<level>time [thread] text", the time in UTC; without a second word the threshold is info.
void openLog(const char* ident, std::string_view facility);
void closeLog();

/// Gives every line, debug lines too, to the function instead; null goes back to the log.
/// The function may be called from any thread.
void setLogSink(void (*sink)(LogLevel level, std::string_view line));

inline std::atomic<int> logThreshold{static_cast<int>(LogLevel::Info)};

/// Whether lines of this level are written at all.
inline bool logs(LogLevel level) {
    return static_cast<int>(level) <= logThreshold.load(std::memory_order_relaxed);
}

/// Formats and writes one line. Control characters in it are written as \n, \r or \xNN; a line feed at its
/// end is dropped, and so is what a warning has beyond 1 KiB. Use the functions below.
void writeLog(LogLevel level, fmt::string_view format, fmt::format_args arguments) noexcept;

/// Log lines. Arguments are formatted only when the level is written, so pass things (a Value, a Dictionary)
/// rather than their texts.
template <typename... Arguments>
void logError(fmt::format_string<const Arguments&...> format, const Arguments&... arguments) {
    if (logs(LogLevel::Error)) writeLog(LogLevel::Error, format, fmt::make_format_args(arguments...));
}

template <typename... Arguments>
void logWarning(fmt::format_string<const Arguments&...> format, const Arguments&... arguments) {
    if (logs(LogLevel::Warning)) writeLog(LogLevel::Warning, format, fmt::make_format_args(arguments...));
}

template <typename... Arguments>
void logInfo(fmt::format_string<const Arguments&...> format, const Arguments&... arguments) {
    if (logs(LogLevel::Info)) writeLog(LogLevel::Info, format, fmt::make_format_args(arguments...));
}

template <typename... Arguments>
void logDebug(fmt::format_string<const Arguments&...> format, const Arguments&... arguments) {
    if (logs(LogLevel::Debug)) writeLog(LogLevel::Debug, format, fmt::make_format_args(arguments...));
}

/// How an absent text prints.
inline constexpr std::string_view absentText = "(null)";

inline std::string_view orNull(const std::string* text) {
    return text != nullptr ? std::string_view(*text) : absentText;
}

inline std::string_view orNull(const std::optional<std::string>& text) {
    return text ? std::string_view(*text) : absentText;
}

}  // namespace quorvane::platform
