#include "util/MessageLog.h"

#include "platform/base/Clock.h"
#include "platform/base/FileManager.h"
#include "platform/base/Log.h"
#include "platform/base/Root.h"
#include "platform/value/Text.h"
#include "util/Settings.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace quorvane {

using platform::Date;
using platform::logError;
using platform::logInfo;

namespace {

constexpr std::string_view kDirectory = "/var/mobile/Library/Logs/Faultrel/Retired";
constexpr std::string_view kPrefix = "quorvaned_";
constexpr std::string_view kSuffix = "_messageLog.diag";
constexpr std::int64_t kLifetimeMicroseconds = 86'400'000'000;
constexpr std::int64_t kUnlimited = std::numeric_limits<std::int64_t>::max();

struct LogFile {
    std::string path;
    std::optional<Date> created;
};

Date now() {
    const platform::TimeValue time = platform::timeOfDay();
    return {time.seconds * 1'000'000 + time.microseconds};
}

std::string dateText(const std::optional<Date>& date) {
    return date ? platform::description(*date) : std::string(platform::absentText);
}

/// Whether the name is three pieces joined by "_", the outer two as given above.
bool isLogFileName(std::string_view name) {
    if (name.size() < kPrefix.size() + kSuffix.size()) return false;
    if (!name.starts_with(kPrefix) || !name.ends_with(kSuffix)) return false;
    name.remove_prefix(kPrefix.size());
    name.remove_suffix(kSuffix.size());
    return name.find('_') == std::string_view::npos;
}

/// The files of the message log; makes its directory when there is none.
std::vector<LogFile> listLogFiles(const std::string& directory) {
    std::error_code error;
    std::vector<LogFile> files;
    for (const std::string& name : platform::listDirectory(directory, error)) {
        if (!isLogFileName(name)) continue;
        std::string path = directory;
        path += '/';
        path += name;
        const std::optional<Date> created = platform::fileCreationDate(path);
        files.push_back({std::move(path), created});
    }
    if (error.value() == ENOENT) {
        logInfo("writeToLogFile: Creating quorvaned log directory at {}", directory);
        platform::createDirectories(directory);
    } else if (error) {
        logError("writeToLogFile: Error reading from log directory: {}", error.message());
    }
    return files;
}

void deleteLogFile(const LogFile& file) {
    platform::removeFile(file.path);
    logInfo("writeToLogFile: Deleted expired quorvaned log file {} ({})", file.path, dateText(file.created));
}

std::int64_t configuredSizeLimit() {
    const auto limit = integerSetting(Setting::MessageLogBytes);
    return limit && *limit > 0 ? *limit : kUnlimited;
}

/// How large a file may become before another takes its place. Looked up once a second at most: every event
/// that is not batched writes a line.
std::int64_t sizeLimit(Date at) {
    static std::atomic<std::int64_t> lookedUp{-1};
    static std::atomic<std::int64_t> limit{kUnlimited};
    const std::int64_t second = at.microseconds / 1'000'000;
    if (lookedUp.exchange(second) != second) limit = configuredSizeLimit();
    return limit;
}

bool full(const LogFile& file, std::int64_t limit) {
    if (limit == kUnlimited) return false;
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(file.path, error);
    return !error && size >= static_cast<std::uintmax_t>(limit);
}

bool expired(const LogFile& file, Date at) {
    const bool old = file.created && at.microseconds - file.created->microseconds > kLifetimeMicroseconds;
    return old || full(file, sizeLimit(at));
}

/// The file created last of those younger than a day that still have room; the others are deleted.
std::optional<LogFile> currentLogFile(std::vector<LogFile> files, Date at) {
    std::optional<LogFile> chosen;
    for (LogFile& file : files) {
        if (expired(file, at)) {
            deleteLogFile(file);
        } else if (!chosen || !chosen->created) {
            // A chosen file without a date is let go of, but it stays on the disk.
            chosen = std::move(file);
        } else {
            if (file.created > chosen->created) std::swap(file, *chosen);
            deleteLogFile(file);
        }
    }
    return chosen;
}

std::optional<LogFile> createLogFile(const std::string& directory, Date at) {
    LogFile file{fmt::format("{}/{}{}{}", directory, kPrefix, at.microseconds / 1'000'000, kSuffix), {}};
    platform::createFile(file.path);
    if (!platform::fileExists(file.path)) {
        logError("writeToLogFile: Failed to create new quorvaned log file {}", file.path);
        return std::nullopt;
    }
    file.created = platform::fileCreationDate(file.path);
    logInfo("writeToLogFile: Created new quorvaned log file {} ({})", file.path, dateText(file.created));
    return file;
}

void append(const LogFile& file, std::string_view message, Date at) {
    // An answer that is JSON stands as it was given, over several lines where it is printed for reading: JSON
    // holds DEL and what is above ASCII as they are. What may not stand in JSON may not stand here either.
    const std::string line = fmt::format("({}) {}\n", platform::description(at),
                                         platform::escapedAsciiControls(message, "\n\t\x7f"));
    if (platform::appendToFile(file.path, line) == platform::AppendResult::WriteFailed)
        deleteLogFile(file);
    else
        logInfo("writeToLogFile: Saved log message to {}", file.path);
}

}  // namespace

void writeToLogFile(std::string_view message) {
    const std::string directory = platform::rooted(kDirectory);
    const Date at = now();
    std::optional<LogFile> file = currentLogFile(listLogFiles(directory), at);
    if (!file) file = createLogFile(directory, at);
    if (file) append(*file, message, at);
}

}  // namespace quorvane
