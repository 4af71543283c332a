#include "framework/QuorvaneBundle.h"

#include "platform/base/FileManager.h"
#include "platform/base/Log.h"
#include "platform/base/Root.h"
#include "platform/formats/PropertyList.h"

#include <algorithm>
#include <cstddef>
#include <system_error>

namespace quorvane {

namespace {

constexpr std::size_t kMostFurtherKeys = 8;
constexpr std::size_t kLargestKeyBytes = 64u << 10;

std::vector<std::string> furtherKeyFiles() {
    const std::string folder = platform::rooted(kPublicKeyFolder);
    std::error_code none;
    std::vector<std::string> names = platform::listDirectory(folder, none);
    std::erase_if(names,
                  [](const std::string& name) { return name.starts_with('.') || !name.ends_with(".der"); });
    std::ranges::sort(names);
    if (names.size() > kMostFurtherKeys) names.resize(kMostFurtherKeys);
    for (std::string& name : names) name.insert(0, folder + '/');
    return names;
}

}  // namespace

std::optional<std::string> bundleVersion() {
    const std::string file = platform::rooted(kBundleInfoFile);
    const std::optional<Data> bytes = platform::readFile(file);
    if (!bytes) return std::nullopt;
    const auto parsed = platform::parsePropertyList(*bytes);
    if (!parsed) {
        platform::logError("bundleVersion: {}: {}", file, parsed.error().message);
        return std::nullopt;
    }
    const Dictionary* info = parsed->dictionary();
    return info != nullptr ? info->text("CFBundleVersion") : std::nullopt;
}

std::vector<PublicKeyResource> publicKeyResources() {
    const std::string first = platform::rooted(kPublicKeyFile);
    std::vector<PublicKeyResource> keys;
    for (const std::string& file : furtherKeyFiles())
        keys.push_back({file, platform::readFile(file, kLargestKeyBytes)});
    if (keys.empty() || platform::fileExists(first))
        keys.insert(keys.begin(), {first, platform::readFile(first, kLargestKeyBytes)});
    return keys;
}

}  // namespace quorvane
