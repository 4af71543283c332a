#include "framework/QuorvaneBundle.h"

#include "platform/base/FileManager.h"
#include "platform/base/Log.h"
#include "platform/base/Root.h"
#include "platform/formats/PropertyList.h"

namespace quorvane {

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

std::optional<Data> publicKeyResource() {
    return platform::readFile(platform::rooted(kPublicKeyFile));
}

}  // namespace quorvane
