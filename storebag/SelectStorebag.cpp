#include "storebag/SelectStorebag.h"

#include "platform/base/Log.h"
#include "storebag/FetchStorebag.h"
#include "storebag/StorebagNames.h"
#include "util/Environment.h"

#include <algorithm>
#include <limits>
#include <string_view>
#include <utility>

namespace quorvane {

using platform::logError;
using platform::logInfo;
using platform::logWarning;

namespace {

constexpr std::int64_t kLongestRefreshCycle = 86400;

void logFetchFailure(std::int32_t clientType) {
    logError("fetchStorebagForEnvironmentAndClientType: Could not fetch storebag for client type {}",
             clientType);
}

void tellUnusable(FetchAttempt& attempt, const char* reason) {
    attempt.outcome = FetchAttempt::Outcome::Failed;
    attempt.reason = reason;
}

/// The bag's section of that key; null for the empty key, which environment 0 has.
Dictionary* sectionOf(Dictionary& bag, std::string_view key) {
    Value* section = key.empty() ? nullptr : bag.find(key);
    return section != nullptr ? section->dictionary() : nullptr;
}

/// The section of the device's environment, in the bag; null, which is logged, when the bag has none.
Dictionary* sectionForEnvironment(Dictionary& bag, std::int32_t clientType) {
    const EnvironmentType environment = environmentType();
    std::string_view key = environmentSectionKey(environment);
    Dictionary* section = sectionOf(bag, key);
    if (section == nullptr && environment == EnvironmentType::Seed) {
        logWarning("fetchStorebagForEnvironmentAndClientType: Seed section is missing in the storebag.");
        key = environmentSectionKey(EnvironmentType::Release);
        section = sectionOf(bag, key);
    }
    if (section == nullptr)
        logError(
            "fetchStorebagForEnvironmentAndClientType: Could not find storebag for client type {} with {} environment",
            clientType, key.empty() ? platform::absentText : key);
    return section;
}

std::int32_t refreshCycle(const Value& seconds) {
    const bool wraps = seconds.kind() == Value::Kind::Unsigned && seconds.integer() < 0;
    const std::int64_t number = wraps ? kLongestRefreshCycle : seconds.integer();
    return static_cast<std::int32_t>(
        std::clamp<std::int64_t>(number, std::numeric_limits<std::int32_t>::min(), kLongestRefreshCycle));
}

}  // namespace

std::optional<Dictionary> fetchStorebagForEnvironmentAndClientType(
    std::int32_t clientType, std::int32_t& maxAge, std::optional<std::string>& version, bool& notModified,
    std::optional<std::string>* lastModified, FetchAttempt* attempt) {
    FetchAttempt untold;
    FetchAttempt& told = attempt != nullptr ? *attempt : untold;
    if (clientType == 0) {
        logError("fetchStorebagForEnvironmentAndClientType: Could not find storebag name for client type {}",
                 clientType);
        return std::nullopt;
    }
    auto bag = fetchStorebagWithName(storebagNameForClientType(clientType), maxAge, notModified, lastModified,
                                     &told);
    if (!bag) {
        if (!notModified) logFetchFailure(clientType);
        return std::nullopt;
    }
    Dictionary* section = sectionForEnvironment(*bag, clientType);
    if (section == nullptr) {
        tellUnusable(told, "the bag has no section for the device's environment");
        return std::nullopt;
    }

    std::optional<std::string> bagVersion = bag->text("version");
    if (!bagVersion) {
        logFetchFailure(clientType);
        tellUnusable(told, "the bag has no version");
        return std::nullopt;
    }
    version = std::move(bagVersion);
    if (const Value* seconds = bag->find("refresh_cycle")) {
        maxAge = refreshCycle(*seconds);
        logInfo("fetchStorebagForEnvironmentAndClientType: Store bag override MaxAge={}", maxAge);
    }
    return std::move(*section);
}

}  // namespace quorvane
