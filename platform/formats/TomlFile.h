#pragma once

#include "platform/value/Value.h"

#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace quorvane::platform {

/// What is wrong with a TOML text: the name it was given, the line, the key that stands there and the fault.
struct TomlError {
    std::string description;
};

using TomlResult = std::variant<Dictionary, TomlError>;

/// A TOML 1.0 text as values. A date without a time of day is its midnight, a time of day without an offset
/// is taken as GMT, and a time of day without a date stays the text "07:32:00.5". Thread-safe.
TomlResult parseToml(std::string_view text, std::string_view name);

/// The same for a file of at most 4 MiB.
TomlResult readTomlFile(const std::string& file);

/// A configuration file as values: empty when there is none, and, after an error line that names the file,
/// when it is malformed.
Dictionary readConfiguration(const std::string& file);

/// The text stored under the key; nothing when there is none and, after an error line that names the file and
/// the key, when something else is stored there.
std::optional<std::string> textUnder(std::string_view key, const Dictionary& configuration,
                                     std::string_view file);

}  // namespace quorvane::platform
