#include "platform/device/UserDefaults.h"

#include "platform/base/Log.h"
#include "platform/base/Root.h"
#include "platform/formats/TomlFile.h"

#include <fmt/format.h>

#include <utility>

namespace quorvane::platform {

namespace {

/// Logs a value that is no number, with what was expected instead.
std::optional<Value> numberUnder(std::string_view suite, std::string_view key, std::string_view expected) {
    auto value = userDefault(suite, key);
    if (value && !value->isNumber())
        logError("readConfiguration: {}: {}: {} is expected", userDefaultsFile(suite), key, expected);
    return value;
}

}  // namespace

std::string userDefaultsFile(std::string_view suite) {
    return rooted(fmt::format("/etc/quorvane/defaults/{}.toml", suite));
}

std::optional<Value> userDefault(std::string_view suite, std::string_view key) {
    Dictionary defaults = readConfiguration(userDefaultsFile(suite));
    Value* value = defaults.find(key);
    return value != nullptr ? std::optional(std::move(*value)) : std::nullopt;
}

std::optional<std::string> userDefaultString(std::string_view suite, std::string_view key) {
    const std::string file = userDefaultsFile(suite);
    return textUnder(key, readConfiguration(file), file);
}

std::optional<std::int64_t> userDefaultInteger(std::string_view suite, std::string_view key) {
    const auto value = numberUnder(suite, key, "a number");
    return value ? std::optional(value->integer()) : std::nullopt;
}

std::optional<bool> userDefaultBoolean(std::string_view suite, std::string_view key) {
    const auto value = numberUnder(suite, key, "true or false");
    return value ? std::optional(value->boolean()) : std::nullopt;
}

}  // namespace quorvane::platform
