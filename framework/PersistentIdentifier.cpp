#include "framework/PersistentIdentifier.h"

#include "platform/base/FileManager.h"
#include "platform/base/Log.h"
#include "platform/base/Root.h"
#include "platform/base/SettledOnce.h"
#include "platform/crypto/Uuid.h"
#include "platform/device/Consent.h"
#include "platform/value/Bytes.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace quorvane {

namespace {

bool isIdentifier(std::string_view text) {
    constexpr std::string_view allowed = "0123456789ABCDEF-";
    return text.size() == 36 && text.find_first_not_of(allowed) == std::string_view::npos;
}

std::optional<std::string> storedIdentifier(const std::string& file) {
    const std::optional<Data> bytes = platform::readFile(file, 4096);
    if (!bytes) return std::nullopt;
    std::string_view text = platform::textOf(*bytes);
    if (text.ends_with('\n')) text.remove_suffix(1);
    if (isIdentifier(text)) return std::string(text);
    platform::logWarning("getPersistentIdentifierForDNU: {} holds no identifier; a new one is made", file);
    return std::nullopt;
}

void store(const std::string& file, const std::string& identifier) {
    if (!platform::replaceFile(file, platform::bytesOf(identifier + '\n'), 0600))
        platform::logError("getPersistentIdentifierForDNU: Could not store the identifier in {}", file);
}

/// The stored identifier, or a new one, which is stored if that is possible.
std::string settleIdentifier() {
    const std::string folder = platform::rooted("/var/lib/quorvane");
    platform::createDirectories(folder);
    const std::string file = folder + "/persistent-identifier";
    std::optional<std::string> identifier = storedIdentifier(file);
    if (!identifier) store(file, identifier.emplace(platform::randomUuidText()));
    return *std::move(identifier);
}

}  // namespace

std::string getPersistentIdentifierForDNU(bool respectConsent) {
    if (respectConsent && !platform::diagnosticsSubmissionAllowed()) {
        static const std::string ofThisProcess = platform::randomUuidText();
        return ofThisProcess;
    }
    static platform::SettledOnce<std::string> persistent(settleIdentifier);
    return persistent.value();
}

}  // namespace quorvane
