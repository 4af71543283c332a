#include "storebag/StorebagCache.h"

#include "platform/base/Log.h"
#include "storebag/SelectStorebag.h"
#include "storebag/StorebagNames.h"

#include <cmath>
#include <utility>

namespace quorvane {

using platform::logDebug;
using platform::logError;
using platform::logInfo;

namespace {

constexpr std::int32_t kSecondsBetweenAttempts = 900;

constexpr std::string_view kFetchSuccessful = "Fetch Successful";
constexpr std::string_view kFetchFailure = "Fetch Failure";

/// The seconds between the time and now; a clock that went back counts as elapsed time too.
double secondsSince(const platform::TimeValue& then) {
    const platform::TimeValue now = platform::timeOfDay();
    // Differences first: they are exact, while a double holds today's date to a fraction of a microsecond
    // only.
    return std::abs(static_cast<double>(now.seconds - then.seconds) +
                    static_cast<double>(now.microseconds - then.microseconds) / 1e6);
}

}  // namespace

std::shared_ptr<const Dictionary> StorebagCache::storebagForSession(std::int32_t clientType) {
    const std::optional<std::string> name = storebagNameForClientType(clientType);
    if (!name) return nullptr;

    const auto [found, isNew] = _cachedStorebags.try_emplace(*name);
    Entry& entry = found->second;
    if (!isNew) {
        const bool successful = entry.fetchState == kFetchSuccessful;
        const double age = secondsSince(entry.fetchTime);
        if (successful && age < entry.maxAge) {
            logDebug("storebagForSession: Cached storebag found for client type {}", clientType);
            return entry.storebagData;
        }
        if (!successful && age < kSecondsBetweenAttempts) {
            logInfo(
                "storebagForSession: Not fetching storebag for client type {} - must wait {} seconds between attempts",
                clientType, kSecondsBetweenAttempts);
            return entry.storebagData;
        }
    }
    fetchAndCacheStorebag(clientType, entry);
    return entry.storebagData;
}

std::optional<std::string> StorebagCache::storebagVersion(std::int32_t clientType) const {
    const std::optional<std::string> name = storebagNameForClientType(clientType);
    if (!name) return std::nullopt;
    const auto found = _cachedStorebags.find(*name);
    return found != _cachedStorebags.end() ? found->second.storebagVersion : std::nullopt;
}

void StorebagCache::fetchAndCacheStorebag(std::int32_t clientType, Entry& entry) {
    logDebug("fetchAndCacheStorebag: Fetching storebag for client type {}", clientType);
    std::int32_t maxAge = 0;
    std::optional<std::string> version;
    bool notModified = false;
    entry.attempt = {};
    entry.attempt.time = platform::timeOfDay();
    auto section = fetchStorebagForEnvironmentAndClientType(clientType, maxAge, version, notModified,
                                                            &entry.lastModified, &entry.attempt);
    logDebug("fetchAndCacheStorebag: Storebag max age: {} seconds", maxAge);

    const bool received = section.has_value();
    if (received) {
        entry.storebagData = std::make_shared<const Dictionary>(*std::move(section));
        entry.storebagVersion = std::move(version);
    } else if (!notModified) {
        logError("fetchAndCacheStorebag: Unable to fetch storebag for client type {}", clientType);
    }
    entry.fetchTime = platform::timeOfDay();
    const bool successful = received || notModified;
    entry.fetchState = successful ? kFetchSuccessful : kFetchFailure;
    entry.maxAge = successful ? maxAge : 0;
    if (successful) entry.confirmed = entry.fetchTime;
    publishStatuses();
}

void StorebagCache::publishStatuses() {
    auto statuses = std::make_shared<std::vector<StorebagStatus>>();
    for (const auto& [name, entry] : _cachedStorebags) {
        platform::TimeValue next = entry.fetchTime;
        next.seconds += entry.fetchState == kFetchSuccessful ? entry.maxAge : kSecondsBetweenAttempts;
        statuses->push_back({name, entry.storebagVersion, entry.confirmed, entry.attempt, next});
    }
    _statuses.publish(std::move(statuses));
}

}  // namespace quorvane
