#pragma once

#include "platform/value/Value.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorvane::platform {

/// /etc/quorvane/defaults/SUITE.toml, under the root.
std::string userDefaultsFile(std::string_view suite);

/// The value stored under the key in the suite's file, read afresh at every call; nothing when the file or
/// the key is absent. A malformed file is logged by name and reads as empty.
std::optional<Value> userDefault(std::string_view suite, std::string_view key);

/// The same, only when a text is stored under the key; something else is logged by file and key.
std::optional<std::string> userDefaultString(std::string_view suite, std::string_view key);

/// The same read as a number, or as true or false. What is no number is logged by file and key, and reads as
/// 0 or false.
std::optional<std::int64_t> userDefaultInteger(std::string_view suite, std::string_view key);
std::optional<bool> userDefaultBoolean(std::string_view suite, std::string_view key);

}  // namespace quorvane::platform
