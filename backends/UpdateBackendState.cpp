#include "backends/HTTPSPostBackend.h"
#include "framework/Keys.h"
#include "platform/base/Log.h"
#include "platform/device/Locale.h"

namespace quorvane {

using platform::logDebug;
using platform::orNull;

namespace {

/// The texts between the commas, as they stand; empty for a missing text.
Array commaSeparated(const std::string* text) {
    Array parts;
    if (text == nullptr) return parts;
    std::string_view rest = *text;
    for (auto comma = rest.find(','); comma != std::string_view::npos; comma = rest.find(',')) {
        parts.emplace_back(rest.substr(0, comma));
        rest.remove_prefix(comma + 1);
    }
    parts.emplace_back(rest);
    return parts;
}

bool matchClientNameAndServiceID(const Dictionary& entry, const std::string* clientName,
                                 const std::string* serviceName) {
    const Array clients = commaSeparated(entry.string("client"));
    if (!matchExactStringWithList(&clients, clientName, true)) return false;
    const Array services = commaSeparated(entry.string("service"));
    return matchStringWithList(&services, serviceName, true);
}

const Dictionary* firstMatchingClient(const Array& clients, const std::string* clientName,
                                      const std::string* serviceName) {
    for (const Value& client : clients) {
        const Dictionary* entry = client.dictionary();
        if (entry != nullptr && matchClientNameAndServiceID(*entry, clientName, serviceName)) return entry;
    }
    return nullptr;
}

std::optional<Value> numberUnder(const Dictionary& entry, std::string_view key) {
    const Value* value = entry.find(key);
    return value != nullptr && value->isNumber() ? std::optional(*value) : std::nullopt;
}

std::int32_t integerUnder(const Dictionary& entry, std::string_view key) {
    return static_cast<std::int32_t>(entry.integer(key));
}

/// A list for a log line.
const Value& printable(const Value* list) {
    static const Value absent(platform::absentText);
    return list != nullptr ? *list : absent;
}

const std::string* pointerTo(const std::optional<std::string>& text) {
    return text ? &*text : nullptr;
}

/// A device without a country code passes any list; an entry without a list passes no device.
bool localeAllows(const Dictionary& entry) {
    const std::optional<std::string> country = platform::currentCountryCode();
    if (matchStringWithList(entry.array("locale_whitelist"), pointerTo(country), false)) return true;
    logDebug("HTTPSPostBackend(updateBackendState): ({}) isn't in locale list {}", orNull(country),
             printable(entry.find("locale_whitelist")));
    return false;
}

}  // namespace

BackendState HTTPSPostBackend::updateBackendState() {
    const Array* clients = profile()->array("clients");
    if (clients == nullptr) return BackendState::Disabled;

    const Dictionary* user = userInfoDict().get();
    const std::string* clientName = user != nullptr ? user->string(kQuorvaneUserInfoClientName) : nullptr;
    const std::string* serviceName = user != nullptr ? user->string(kQuorvaneUserInfoServiceName) : nullptr;
    const Dictionary* entry = firstMatchingClient(*clients, clientName, serviceName);

    if (entry != nullptr) applyExpedite(*entry);
    if (!requireUserInfo()) return stateWithoutUserInfo(*clients);
    if (user == nullptr) return BackendState::WaitingForUserInfo;
    if (entry == nullptr) return BackendState::Disabled;

    setHierarchy(integerUnder(*entry, "hierarchy"));
    if (!consentAllows(*entry) || !localeAllows(*entry) || !deviceAllows(*entry) || !readFilters(*entry))
        return BackendState::Disabled;
    const BackendState state = sampledState(*entry);
    readEventThreshold(*entry);
    readExtrasOnInternal(*entry);
    logDebug("HTTPSPostBackend(updateBackendState): {}: client found {}, state? {}, {:f}", name(),
             orNull(clientName), static_cast<int>(state), samplingFactor());
    updatePostLink(*entry);
    return state;
}

void HTTPSPostBackend::applyExpedite(const Dictionary& entry) {
    if (!entry.contains("expedite")) return;
    setBatchEvents(entry.integer("expedite") == 0);
    logDebug("HTTPSPostBackend(updateBackendState): Store bag override  _batchEvent={:d}", batchEvents());
}

BackendState HTTPSPostBackend::stateWithoutUserInfo(const Array& clients) {
    for (const Value& client : clients) {
        const Dictionary* entry = client.dictionary();
        if (entry == nullptr || !updatePostLink(*entry)) continue;
        readExtrasOnInternal(*entry);
        break;
    }
    return BackendState::Enabled;
}

bool HTTPSPostBackend::consentAllows(const Dictionary& entry) {
    const std::int64_t override = entry.integer("override_dnu");
    if (override == 1) {
        _dnuType = _dnuEnabled ? DnuType::OverriddenWithConsent : DnuType::OverriddenWithoutConsent;
        return true;
    }
    _dnuType = DnuType::None;
    if (!_dnuEnabled)
        logDebug("HTTPSPostBackend(updateBackendState): reporting disabled by DNU: {}.", override);
    return _dnuEnabled;
}

bool HTTPSPostBackend::deviceAllows(const Dictionary& entry) const {
    if (matchStringWithList(entry.array("device_whitelist"), pointerTo(productFamily()), true)) return true;
    logDebug("HTTPSPostBackend(updateBackendState): ({}) isn't in device list {}", orNull(productFamily()),
             printable(entry.find("device_whitelist")));
    return false;
}

bool HTTPSPostBackend::readFilters(const Dictionary& entry) {
    const Array* filters = entry.array("filters");
    if (filters == nullptr) {
        platform::logWarning("HTTPSPostBackend(updateBackendState): filters are required.");
        return false;
    }
    _filters.createFiltersFromArray(*filters);
    return true;
}

BackendState HTTPSPostBackend::sampledState(const Dictionary& entry) {
    const std::optional<Value> threshold = numberUnder(entry, "sampling_threshold");
    setSamplingThreshold(threshold);
    if (!threshold) return BackendState::Disabled;
    if (samplingFactor() <= threshold->real()) return BackendState::Enabled;
    _overrideSampling = numberUnder(entry, "override_sampling");
    const bool beyondOverride = _overrideSampling && samplingFactor() > _overrideSampling->real();
    return beyondOverride ? BackendState::Disabled : BackendState::SampledOut;
}

void HTTPSPostBackend::readEventThreshold(const Dictionary& entry) {
    if (entry.contains("event_threshold")) {
        _eventThreshold = integerUnder(entry, "event_threshold");
        logDebug("HTTPSPostBackend(updateBackendState): event_threshold set to {}", _eventThreshold);
    } else {
        // An earlier entry's threshold stays in force; the line names the default all the same.
        logDebug(
            "HTTPSPostBackend(updateBackendState): event_threshold value not found in storebag - defaulting to {}",
            kDefaultEventThreshold);
    }
}

void HTTPSPostBackend::readExtrasOnInternal(const Dictionary& entry) {
    if (!entry.contains("extras_on_internal")) return;
    _extrasOnInternal = integerUnder(entry, "extras_on_internal");
    logDebug("HTTPSPostBackend(updateBackendState): extras on internal is set to {}", _extrasOnInternal);
}

}  // namespace quorvane
