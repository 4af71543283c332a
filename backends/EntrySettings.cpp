#include "backends/EntrySettings.h"

#include <string_view>

namespace quorvane {

namespace {

std::int32_t integerUnder(const Dictionary& entry, std::string_view key) {
    return static_cast<std::int32_t>(entry.integer(key));
}

std::optional<std::int32_t> integerIfThere(const Dictionary& entry, std::string_view key) {
    return entry.contains(key) ? std::optional(integerUnder(entry, key)) : std::nullopt;
}

EntrySettings::Reporting reportingUnder(const ReportingDecision& decision) {
    const Dictionary& entry = *decision.entry;
    return {.filters = entry.array("filters"),
            .samplingThreshold = numberUnder(entry, "sampling_threshold"),
            .comparedOverride = decision.reason > ReportingReason::BelowThreshold,
            .overrideSampling = numberUnder(entry, "override_sampling"),
            .eventThreshold = integerIfThere(entry, "event_threshold"),
            .extrasOnInternal = extrasOnInternalUnder(entry)};
}

}  // namespace

EntrySettings settingsUnder(const ReportingDecision& decision, bool consent) {
    EntrySettings settings;
    if (decision.entry == nullptr) return settings;
    const Dictionary& entry = *decision.entry;
    if (entry.contains("expedite")) settings.batchEvents = entry.integer("expedite") == 0;
    if (decision.judgedEntry())
        settings.identity = {.hierarchy = integerUnder(entry, "hierarchy"),
                             .dnuType = dnuTypeUnder(entry, consent)};
    if (decision.settledBySampling()) settings.reporting = reportingUnder(decision);
    return settings;
}

std::optional<std::int32_t> extrasOnInternalUnder(const Dictionary& entry) {
    return integerIfThere(entry, "extras_on_internal");
}

}  // namespace quorvane
