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

void logFault(BagFault fault, std::int32_t clientType, std::string_view sectionKey) {
    if (fault == BagFault::NoVersion) return logFetchFailure(clientType);
    logError(
        "fetchStorebagForEnvironmentAndClientType: Could not find storebag for client type {} with {} environment",
        clientType, sectionKey.empty() ? platform::absentText : sectionKey);
}

std::int32_t refreshCycle(const Value& seconds) {
    const bool wraps = seconds.kind() == Value::Kind::Unsigned && seconds.integer() < 0;
    const std::int64_t number = wraps ? kLongestRefreshCycle : seconds.integer();
    return static_cast<std::int32_t>(
        std::clamp<std::int64_t>(number, std::numeric_limits<std::int32_t>::min(), kLongestRefreshCycle));
}

}  // namespace

std::string_view sectionKeyForEnvironment(const Dictionary& bag, EnvironmentType environment) {
    const std::string_view key = environmentSectionKey(environment);
    if (environment != EnvironmentType::Seed || bag.dictionary(key) != nullptr) return key;
    logWarning("fetchStorebagForEnvironmentAndClientType: Seed section is missing in the storebag.");
    return environmentSectionKey(EnvironmentType::Release);
}

std::optional<BagFault> faultOf(const Dictionary& bag, std::string_view sectionKey) {
    if (sectionKey.empty() || bag.dictionary(sectionKey) == nullptr) return BagFault::NoSection;
    if (bag.string("version") == nullptr) return BagFault::NoVersion;
    return std::nullopt;
}

const char* textOf(BagFault fault) {
    return fault == BagFault::NoSection ? "the bag has no section for the device's environment"
                                        : "the bag has no version";
}

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
    const std::string_view key = sectionKeyForEnvironment(*bag, environmentType());
    if (const std::optional<BagFault> fault = faultOf(*bag, key)) {
        logFault(*fault, clientType, key);
        told.outcome = FetchAttempt::Outcome::Failed;
        told.reason = textOf(*fault);
        return std::nullopt;
    }
    version = bag->text("version");
    if (const Value* seconds = bag->find("refresh_cycle")) {
        maxAge = refreshCycle(*seconds);
        logInfo("fetchStorebagForEnvironmentAndClientType: Store bag override MaxAge={}", maxAge);
    }
    return std::move(*bag->find(key)->dictionary());
}

}  // namespace quorvane
