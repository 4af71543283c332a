#include "backends/HTTPSPostBackend.h"
#include "backends/ReportingRules.h"
#include "framework/Keys.h"
#include "platform/base/Log.h"
#include "platform/device/Locale.h"

#include <cassert>

namespace quorvane {

using platform::logDebug;
using platform::orNull;

namespace {

std::int32_t integerUnder(const Dictionary& entry, std::string_view key) {
    return static_cast<std::int32_t>(entry.integer(key));
}

/// A list for a log line.
const Value& printable(const Value* list) {
    static const Value absent(platform::absentText);
    return list != nullptr ? *list : absent;
}

/// Writes the line of a rule that keeps the backend from reporting, where the rule has one.
void logRefusal(const ReportingDecision& decision, const ReportingFacts& facts) {
    switch (decision.reason) {
        case ReportingReason::NoConsent:
            logDebug("HTTPSPostBackend(updateBackendState): reporting disabled by DNU: {}.",
                     decision.entry->integer("override_dnu"));
            break;
        case ReportingReason::CountryNotListed:
            logDebug("HTTPSPostBackend(updateBackendState): ({}) isn't in locale list {}",
                     orNull(facts.country), printable(decision.entry->find("locale_whitelist")));
            break;
        case ReportingReason::DeviceNotListed:
            logDebug("HTTPSPostBackend(updateBackendState): ({}) isn't in device list {}",
                     orNull(facts.productFamily), printable(decision.entry->find("device_whitelist")));
            break;
        case ReportingReason::NoFilters:
            platform::logWarning("HTTPSPostBackend(updateBackendState): filters are required.");
            break;
        default:
            break;
    }
}

}  // namespace

BackendState HTTPSPostBackend::updateBackendState() {
    const Array* clients = profile()->array("clients");
    const ReportingFacts facts = reportingFacts();
    const ReportingDecision decision = decideReporting(clients, facts);
    if (decision.entry != nullptr) applyExpedite(*decision.entry);
    if (decision.reason == ReportingReason::NoRuleApplies) takeFirstTargets(*clients);
    if (decision.judgedEntry()) applyEntry(decision, facts);
    _reason = decision.reason;
    return decision.state;
}

ReportingFacts HTTPSPostBackend::reportingFacts() const {
    return {.userInfo = userInfoDict().get(),
            .requireUserInfo = requireUserInfo(),
            .consent = _dnuEnabled,
            .country = platform::currentCountryCode(),
            .productFamily = productFamily(),
            .draw = samplingFactor()};
}

void HTTPSPostBackend::applyExpedite(const Dictionary& entry) {
    if (!entry.contains("expedite")) return;
    setBatchEvents(entry.integer("expedite") == 0);
    logDebug("HTTPSPostBackend(updateBackendState): Store bag override  _batchEvent={:d}", batchEvents());
}

void HTTPSPostBackend::takeFirstTargets(const Array& clients) {
    for (const Value& client : clients) {
        const Dictionary* entry = client.dictionary();
        if (entry == nullptr || !updatePostLink(*entry)) continue;
        readExtrasOnInternal(*entry);
        break;
    }
}

/// What the rules did not come to keeps the value that an earlier entry gave it.
void HTTPSPostBackend::applyEntry(const ReportingDecision& decision, const ReportingFacts& facts) {
    assert(decision.entry != nullptr);
    const Dictionary& entry = *decision.entry;
    setHierarchy(integerUnder(entry, "hierarchy"));
    _dnuType = dnuTypeUnder(entry, facts.consent);
    logRefusal(decision, facts);
    if (!decision.settledBySampling()) return;

    _filters.createFiltersFromArray(*entry.array("filters"));
    setSamplingThreshold(numberUnder(entry, "sampling_threshold"));
    if (decision.reason > ReportingReason::BelowThreshold)
        _overrideSampling = numberUnder(entry, "override_sampling");
    readEventThreshold(entry);
    readExtrasOnInternal(entry);
    logDebug("HTTPSPostBackend(updateBackendState): {}: client found {}, state? {}, {:f}", name(),
             orNull(facts.userInfo->string(kQuorvaneUserInfoClientName)), static_cast<int>(decision.state),
             facts.draw);
    updatePostLink(entry);
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
    changed();
    logDebug("HTTPSPostBackend(updateBackendState): extras on internal is set to {}", _extrasOnInternal);
}

}  // namespace quorvane
