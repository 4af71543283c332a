#pragma once

#include "platform/base/Result.h"
#include "platform/value/Value.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvane::platform {

/// A TOML 1.0 text as values, nested at most 128 levels deep. A date without a time of day is its midnight, a
/// time of day without an offset is taken as GMT, and a time of day without a date stays the text
/// "07:32:00.5". An error says the name, the line, the key that stands there and the fault. Thread-safe.
Result<Dictionary> parseToml(std::string_view text, std::string_view name);

/// The same for a file of at most 4 MiB.
Result<Dictionary> readTomlFile(const std::string& file);

/// A key at the top of a TOML file, and the line where it stands first, counted from 1.
struct TomlEntry {
    std::string key;
    std::size_t line = 0;
    Value value;
};

/// The same file, told by its keys at the top, in the order of their lines.
Result<std::vector<TomlEntry>> readTomlEntries(const std::string& file);

/// A configuration file as values: empty when there is none, and, after an error line that names the file,
/// when it is malformed.
Dictionary readConfiguration(const std::string& file);

/// The text stored under the key; nothing when there is none and, after an error line that names the file and
/// the key, when something else is stored there.
std::optional<std::string> textUnder(std::string_view key, const Dictionary& configuration,
                                     std::string_view file);

}  // namespace quorvane::platform
