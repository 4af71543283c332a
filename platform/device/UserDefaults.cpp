#include "platform/device/UserDefaults.h"

#include "platform/base/Root.h"
#include "platform/formats/TomlFile.h"

#include <fmt/format.h>

#include <utility>

namespace quorvane::platform {

namespace {

std::string suiteFile(std::string_view suite) {
    return rooted(fmt::format("/etc/quorvane/defaults/{}.toml", suite));
}

}  // namespace

std::optional<Value> userDefault(std::string_view suite, std::string_view key) {
    Dictionary defaults = readConfiguration(suiteFile(suite));
    Value* value = defaults.find(key);
    return value != nullptr ? std::optional(std::move(*value)) : std::nullopt;
}

std::optional<std::string> userDefaultString(std::string_view suite, std::string_view key) {
    const std::string file = suiteFile(suite);
    return textUnder(key, readConfiguration(file), file);
}

}  // namespace quorvane::platform
