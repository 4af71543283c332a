#include "platform/base/Log.h"

#include "platform/value/Text.h"

#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <utility>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace quorvane::platform {

namespace {

std::atomic<bool> toStandardError{false};
std::atomic<void (*)(LogLevel, std::string_view)> logSink{nullptr};

std::string lowered(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return result;
}

int facilityNumber(std::string_view name) {
    static constexpr std::array<std::pair<std::string_view, int>, 4> facilities{
        {{"daemon", LOG_DAEMON}, {"user", LOG_USER}, {"local0", LOG_LOCAL0}, {"syslog", LOG_SYSLOG}}};
    const std::string sought = lowered(name);
    for (const auto& [known, number] : facilities)
        if (known == sought) return number;
    return LOG_DAEMON;
}

LogLevel levelNamed(std::string_view name) {
    if (name == "error") return LogLevel::Error;
    if (name == "warning") return LogLevel::Warning;
    if (name == "debug") return LogLevel::Debug;
    return LogLevel::Info;
}

void readEnvironment() {
    const char* setting = std::getenv("QUORVANE_LOG");
    if (setting == nullptr) return;
    const std::string text = lowered(setting);
    const auto colon = text.find(':');
    if (text.substr(0, colon) != "stderr") return;
    toStandardError = true;
    if (colon != std::string::npos) logThreshold = static_cast<int>(levelNamed(text.substr(colon + 1)));
}

/// A control character of ASCII, or a byte that may be part of one above it.
bool mayBeControl(char c) {
    return static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x7f;
}

/// Warnings print what clients sent, of any size; its beginning tells enough.
void shortenWarning(std::string& line) {
    constexpr std::size_t most = 1024;
    constexpr std::string_view mark = "...";
    if (line.size() <= most) return;
    std::size_t end = most - mark.size();
    while (end > 0 && (static_cast<unsigned char>(line[end]) & 0xc0) == 0x80) --end;
    line.replace(end, std::string::npos, mark);
}

/// The level comes first, where a service manager that reads the lines looks for it.
std::string standardErrorLine(LogLevel level, std::string_view line) {
    std::array<char, 16> thread{};
    ::pthread_getname_np(::pthread_self(), thread.data(), thread.size());
    using namespace std::chrono;
    const auto now = duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
    return fmt::format("<{}>{:%FT%T}.{:06}Z [{}] {}\n", static_cast<int>(level), fmt::gmtime(now / 1'000'000),
                       now % 1'000'000, thread.data(), line);
}

void emit(LogLevel level, const std::string& line) {
    if (const auto sink = logSink.load()) {
        sink(level, line);
    } else if (toStandardError) {
        const std::string text = standardErrorLine(level, line);
        // One write a line, so that lines of several threads do not mix. There is nowhere to report a
        // failure.
        [[maybe_unused]] const auto written = ::write(STDERR_FILENO, text.data(), text.size());
    } else {
        ::syslog(static_cast<int>(level), "%s", line.c_str());
    }
}

}  // namespace

void openLog(const char* ident, std::string_view facility) {
    readEnvironment();
    ::openlog(ident, LOG_PID | LOG_NDELAY, facilityNumber(facility));
}

void closeLog() {
    ::closelog();
}

void setLogSink(void (*sink)(LogLevel, std::string_view)) {
    logSink = sink;
    logThreshold = static_cast<int>(sink != nullptr ? LogLevel::Debug : LogLevel::Info);
}

void writeLog(LogLevel level, fmt::string_view format, fmt::format_args arguments) noexcept {
    try {
        std::string line = fmt::vformat(format, arguments);
        if (!line.empty() && line.back() == '\n') line.pop_back();
        if (level == LogLevel::Warning) shortenWarning(line);
        emit(level, std::any_of(line.begin(), line.end(), mayBeControl) ? escapedControls(line, "\t") : line);
    } catch (...) {
        ::syslog(LOG_ERR, "writeLog: a line could not be formatted");
    }
}

}  // namespace quorvane::platform
