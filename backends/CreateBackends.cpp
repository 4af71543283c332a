#include "backends/CreateBackends.h"

#include "framework/Keys.h"
#include "framework/QuorvaneBundle.h"
#include "platform/base/Log.h"
#include "util/DeviceFacts.h"

#include <utility>

namespace quorvane {

namespace {

/// What every backend of one session is told.
struct SessionFacts {
    std::uint32_t sessionID;
    std::int32_t clientType;
    std::uint16_t clientVersion;
    bool requireUserInfo;
    bool batchEvents;
    std::shared_ptr<const Dictionary> userInfo;
    const char* deviceIdentifier;

    platform::TimeValue startTime = platform::timeOfDay();
    std::optional<std::string> productVersion = quorvane::productVersion();
    std::optional<std::string> buildVersion = quorvane::buildVersion();
    std::optional<std::string> productType = quorvane::productType();
    std::optional<std::string> deviceName = quorvane::deviceName();
    bool isInternal = isInternalBuild();
    std::string selfVersion = bundleVersion().value_or(kDefaultBundleVersion);
};

SessionFacts gatherFacts(const Dictionary& sessionInfo, const std::shared_ptr<const Dictionary>& userInfo,
                         const char* deviceIdentifier) {
    return {
        .sessionID = static_cast<std::uint32_t>(sessionInfo.unsignedInteger(kQuorvaneSessionInfoSessionID)),
        .clientType = static_cast<std::int32_t>(sessionInfo.integer(kQuorvaneSessionInfoClientType)),
        .clientVersion = static_cast<std::uint16_t>(sessionInfo.integer(kQuorvaneSessionInfoClientVersion)),
        .requireUserInfo = sessionInfo.boolean(kQuorvaneSessionInfoRequireUserInfo),
        .batchEvents = sessionInfo.boolean(kQuorvaneSessionInfoBatchEvent),
        .userInfo = userInfo,
        .deviceIdentifier = deviceIdentifier,
    };
}

void applyFacts(QuorvaneBackend& backend, const SessionFacts& facts) {
    backend.setSessionID(facts.sessionID);
    backend.setCompType(facts.clientType);
    backend.setClientVersion(facts.clientVersion);
    backend.setUdid(facts.deviceIdentifier);
    backend.setProductVersion(facts.productVersion);
    backend.setBuildVersion(facts.buildVersion);
    backend.setHardwareType(facts.productType);
    backend.setIsInternal(facts.isInternal);
    backend.setRequireUserInfo(facts.requireUserInfo);
    backend.setBatchEvents(facts.batchEvents);
    backend.setUserInfoDict(facts.userInfo);
    backend.setSelfVersion(facts.selfVersion);
    backend.setStartTimestamp(facts.startTime);
}

}  // namespace

std::optional<BackendDictionary> createBackends(const std::shared_ptr<const Dictionary>& storebag,
                                                const Dictionary* sessionInfo,
                                                const std::shared_ptr<const Dictionary>& userInfo,
                                                const char* deviceIdentifier) {
    if (storebag == nullptr) {
        platform::logError("createBackends: Attempted to create backends with nil storebag");
        return std::nullopt;
    }
    if (sessionInfo == nullptr) {
        platform::logError("createBackends: Attempted to create backends with nil session info");
        return std::nullopt;
    }

    const SessionFacts facts = gatherFacts(*sessionInfo, userInfo, deviceIdentifier);
    BackendDictionary backends;
    for (const auto& [name, entry] : *storebag) {
        if (entry.dictionary() == nullptr)
            platform::logError("createBackends: {}: a dictionary is expected in the storebag", name);
        // The profile shares the section's life instead of being copied: many sessions run on one section.
        std::shared_ptr<const Dictionary> profile(storebag, entry.dictionary());
        auto backend =
            QuorvaneBackend::newBackendWithName(name, std::move(profile), facts.deviceName, facts.clientType);
        if (backend == nullptr) continue;
        applyFacts(*backend, facts);
        backends.emplace(name, std::move(backend));
    }
    return backends;
}

}  // namespace quorvane
