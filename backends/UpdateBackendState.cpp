#include "backends/EntrySettings.h"
#include "backends/HTTPSPostBackend.h"
#include "backends/ReportingRules.h"
#include "framework/Keys.h"
#include "platform/base/Log.h"
#include "platform/device/Locale.h"

namespace quorvane {

using platform::logDebug;
using platform::orNull;

namespace {

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
    const EntrySettings settings = settingsUnder(decision, facts.consent);
    if (settings.batchEvents) applyExpedite(*settings.batchEvents);
    if (decision.reason == ReportingReason::NoRuleApplies) takeFirstTargets(*clients);
    if (settings.identity) {
        setHierarchy(settings.identity->hierarchy);
        _dnuType = settings.identity->dnuType;
        logRefusal(decision, facts);
    }
    if (settings.reporting) {
        applyReporting(*settings.reporting);
        logDebug("HTTPSPostBackend(updateBackendState): {}: client found {}, state? {}, {:f}", name(),
                 orNull(facts.userInfo->string(kQuorvaneUserInfoClientName)),
                 static_cast<int>(decision.state), facts.draw);
        updatePostLink(*decision.entry);
    }
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

void HTTPSPostBackend::applyExpedite(bool batchEvents) {
    setBatchEvents(batchEvents);
    logDebug("HTTPSPostBackend(updateBackendState): Store bag override  _batchEvent={:d}", batchEvents);
}

void HTTPSPostBackend::takeFirstTargets(const Array& clients) {
    if (const Dictionary* entry = _targets.updateFromFirst(clients))
        applyExtrasOnInternal(extrasOnInternalUnder(*entry));
}

void HTTPSPostBackend::applyReporting(const EntrySettings::Reporting& settings) {
    _filters.createFiltersFromArray(*settings.filters);
    setSamplingThreshold(settings.samplingThreshold);
    if (settings.comparedOverride) _overrideSampling = settings.overrideSampling;
    applyEventThreshold(settings.eventThreshold);
    applyExtrasOnInternal(settings.extrasOnInternal);
}

void HTTPSPostBackend::applyEventThreshold(std::optional<std::int32_t> threshold) {
    if (threshold) {
        _eventThreshold = *threshold;
        logDebug("HTTPSPostBackend(updateBackendState): event_threshold set to {}", _eventThreshold);
    } else {
        // An earlier entry's threshold stays in force; the line names the default all the same.
        logDebug(
            "HTTPSPostBackend(updateBackendState): event_threshold value not found in storebag - defaulting to {}",
            kDefaultEventThreshold);
    }
}

void HTTPSPostBackend::applyExtrasOnInternal(std::optional<std::int32_t> extras) {
    if (!extras) return;
    _extrasOnInternal = *extras;
    changed();
    logDebug("HTTPSPostBackend(updateBackendState): extras on internal is set to {}", _extrasOnInternal);
}

}  // namespace quorvane
