#include "backends/ReportingRules.h"

#include "backends/EventFilters.h"
#include "framework/Keys.h"

#include <string_view>

namespace quorvane {

namespace {

const Dictionary* firstMatchingClient(const Array& clients, const Dictionary* userInfo) {
    const std::string* name = userInfo ? userInfo->string(kQuorvaneUserInfoClientName) : nullptr;
    const std::string* service = userInfo ? userInfo->string(kQuorvaneUserInfoServiceName) : nullptr;
    for (const Value& client : clients) {
        const Dictionary* entry = client.dictionary();
        if (entry != nullptr && matchClientNameAndServiceID(*entry, name, service)) return entry;
    }
    return nullptr;
}

const std::string* pointerTo(const std::optional<std::string>& text) {
    return text ? &*text : nullptr;
}

/// A device without a country code passes any list; an entry without a list passes no device.
bool countryAllows(const Dictionary& entry, const ReportingFacts& facts) {
    return matchStringWithList(entry.array("locale_whitelist"), pointerTo(facts.country), false);
}

bool deviceAllows(const Dictionary& entry, const ReportingFacts& facts) {
    return matchStringWithList(entry.array("device_whitelist"), pointerTo(facts.productFamily), true);
}

ReportingDecision sampled(const Dictionary& entry, double draw) {
    const std::optional<Value> threshold = numberUnder(entry, "sampling_threshold");
    if (!threshold) return {BackendState::Disabled, ReportingReason::NoSamplingThreshold, &entry};
    if (draw <= threshold->real()) return {BackendState::Enabled, ReportingReason::BelowThreshold, &entry};
    const std::optional<Value> override = numberUnder(entry, "override_sampling");
    if (override && draw > override->real())
        return {BackendState::Disabled, ReportingReason::AboveThresholds, &entry};
    return {BackendState::SampledOut, ReportingReason::BetweenThresholds, &entry};
}

ReportingDecision judge(const Dictionary& entry, const ReportingFacts& facts) {
    const auto disabled = [&](ReportingReason reason) {
        return ReportingDecision{BackendState::Disabled, reason, &entry};
    };
    if (!facts.consent && dnuTypeUnder(entry, facts.consent) == DnuType::None)
        return disabled(ReportingReason::NoConsent);
    if (!countryAllows(entry, facts)) return disabled(ReportingReason::CountryNotListed);
    if (!deviceAllows(entry, facts)) return disabled(ReportingReason::DeviceNotListed);
    if (entry.array("filters") == nullptr) return disabled(ReportingReason::NoFilters);
    return sampled(entry, facts.draw);
}

}  // namespace

ReportingDecision decideReporting(const Array* clients, const ReportingFacts& facts) {
    if (clients == nullptr) return {BackendState::Disabled, ReportingReason::NoClientList};
    const Dictionary* entry = firstMatchingClient(*clients, facts.userInfo);
    if (!facts.requireUserInfo) return {BackendState::Enabled, ReportingReason::NoRuleApplies, entry};
    if (facts.userInfo == nullptr)
        return {BackendState::WaitingForUserInfo, ReportingReason::AwaitsUserInfo, entry};
    if (entry == nullptr) return {BackendState::Disabled, ReportingReason::NoMatchingClient};
    return judge(*entry, facts);
}

bool ReportingDecision::judgedEntry() const {
    return reason >= ReportingReason::NoConsent;
}

bool ReportingDecision::settledBySampling() const {
    return reason >= ReportingReason::NoSamplingThreshold;
}

EntryMatch matchOf(const Dictionary& entry, const std::string* clientName, const std::string* serviceName) {
    const Array clients = commaSeparated(entry.string("client"));
    if (!matchExactStringWithList(&clients, clientName, true)) return EntryMatch::OtherClient;
    const Array services = commaSeparated(entry.string("service"));
    return matchStringWithList(&services, serviceName, true) ? EntryMatch::Matches : EntryMatch::OtherService;
}

bool matchClientNameAndServiceID(const Dictionary& entry, const std::string* clientName,
                                 const std::string* serviceName) {
    return matchOf(entry, clientName, serviceName) == EntryMatch::Matches;
}

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

DnuType dnuTypeUnder(const Dictionary& entry, bool consent) {
    if (entry.integer("override_dnu") != 1) return DnuType::None;
    return consent ? DnuType::OverriddenWithConsent : DnuType::OverriddenWithoutConsent;
}

std::optional<Value> numberUnder(const Dictionary& entry, std::string_view key) {
    const Value* value = entry.find(key);
    return value != nullptr && value->isNumber() ? std::optional(*value) : std::nullopt;
}

}  // namespace quorvane
