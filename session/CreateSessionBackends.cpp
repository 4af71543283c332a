#include "framework/QuorvaneBundle.h"
#include "platform/base/Log.h"
#include "platform/device/Locale.h"
#include "session/QuorvanedSession.h"
#include "util/Settings.h"

#include <utility>

namespace quorvane {

namespace {

constexpr std::uint16_t kInternalMethod = 0;
constexpr std::uint16_t kSessionStart = 0;

bool automaticTimeSet() {
    return booleanSetting(Setting::AutomaticTimeZone).value_or(true);
}

/// The device as its session's first event tells it. Devices outside the maker's house tell their time
/// setting alone.
Dictionary deviceFacts() {
    Dictionary facts{{"AutomaticTimeSet", automaticTimeSet()}};
    if (!isInternalBuild()) return facts;
    facts.set("SerialNum", serialNumber().value_or("Unknown"));
    facts.set("Version", productVersion().value_or("Unknown"));
    facts.set("Build", buildVersion().value_or("Unknown"));
    facts.set("Hardware", hardwareModel().value_or("Unknown"));
    facts.set("Product", deviceName().value_or("Unknown"));
    facts.set("ReportVers", bundleVersion().value_or(kDefaultBundleVersion));
    if (auto country = platform::currentCountryCode()) facts.set("Locale", *std::move(country));
    return facts;
}

}  // namespace

void QuorvanedSession::createBackendsWithStorebag(const std::shared_ptr<const Dictionary>& storebag) {
    // What the backends of an earlier start hold would go with them.
    if (_backends.own() != nullptr) flushMessages();
    platform::logDebug("createBackendsWithStorebag: Creating backends for session {}", sessionID());
    auto backends = createBackends(storebag, _sessionInfo.own().get(), _userInfo.own(), _deviceid.data());
    if (backends)
        for (const auto& [name, backend] : *backends) {
            backend->ledger().join(_ledger, name);
            backend->setCombinedSessionIDString(_sessionIDString);
        }
    replaceBackends(std::move(backends));
    internalSendMessage(deviceFacts(), kInternalMethod, kSessionStart);
}

void QuorvanedSession::replaceBackends(std::optional<BackendDictionary> backends) {
    const auto replaced = _backends.own();
    _backends.publish(backends ? std::make_shared<const BackendDictionary>(*std::move(backends)) : nullptr);
    if (replaced == nullptr) return;
    for (const auto& [name, backend] : *replaced) backend->cleanup();
}

}  // namespace quorvane
