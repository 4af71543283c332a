#include "tools/storebag/BagSource.h"

#include "platform/formats/PropertyList.h"
#include "platform/formats/TomlFile.h"
#include "tools/common/Failure.h"
#include "tools/common/Files.h"
#include "tools/common/Json.h"

#include <filesystem>
#include <utility>

#include <fmt/format.h>

namespace quorvane::tools {

namespace {

std::string formatOf(const std::string& path) {
    const std::string ending = std::filesystem::path(path).extension();
    if (ending == ".toml" || ending == ".json" || ending == ".plist") return ending.substr(1);
    throw Failure(fmt::format("{}: say with --format what it is: toml, json or plist", nameOfInput(path)),
                  kUsage);
}

Dictionary dictionaryOf(Value value, std::string_view name) {
    Dictionary* root = value.dictionary();
    if (root == nullptr) throw Failure(fmt::format("{}: a bag is a dictionary", name));
    return std::move(*root);
}

Dictionary tomlBag(std::string_view text, std::string_view name) {
    auto parsed = platform::parseToml(text, name);
    if (!parsed) throw Failure(parsed.error().message);
    return *std::move(parsed);
}

Dictionary propertyListBag(const Data& bytes, std::string_view name) {
    auto parsed = platform::parsePropertyList(bytes);
    if (!parsed) throw Failure(fmt::format("{}: {}", name, parsed.error().message));
    return dictionaryOf(*std::move(parsed), name);
}

}  // namespace

Dictionary readBagSource(const std::string& path, const std::string& format) {
    const std::string form = format.empty() ? formatOf(path) : format;
    const Data bytes = readBytes(path);
    const std::string_view name = nameOfInput(path);
    if (form == "toml") return tomlBag(textOf(bytes), name);
    if (form == "json") return dictionaryOf(parseJsonOrFail(textOf(bytes), name), name);
    return propertyListBag(bytes, name);
}

}  // namespace quorvane::tools
