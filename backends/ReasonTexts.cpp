#include "backends/ReasonTexts.h"

#include <array>
#include <cassert>
#include <cstddef>

namespace quorvane {

namespace {

struct Words {
    std::string_view key;
    std::string_view text;
};

constexpr std::array<std::string_view, 4> kStates{"waitingForUserInfo", "disabled", "enabled", "sampledOut"};

constexpr std::array<Words, 18> kReportingReasons{{
    {"notSetUp", "it is not set up yet"},
    {"alwaysReports", "it always reports"},
    {"parentReports", "the session above it reports"},
    {"parentDoesNotReport", "the session above it does not report"},
    {"stoppedByServer", "its server answered with a failure of its own (5xx)"},
    {"askedByEvent", "an event asked to be reported though the session was sampled out"},
    {"noClientList", "the storebag has no client list"},
    {"noRuleApplies", "the session does not require user info, so no rule applies"},
    {"awaitsUserInfo", "it waits for the user info"},
    {"noMatchingClient", "no entry names the client and service"},
    {"noConsent", "the user does not consent to the submission of diagnostics"},
    {"countryNotListed", "the entry does not list the device's country"},
    {"deviceNotListed", "the entry does not list the device"},
    {"noFilters", "the entry has no filters"},
    {"noSamplingThreshold", "the entry has no sampling threshold"},
    {"belowThreshold", "the entry lets it report"},
    {"betweenThresholds", "it is sampled out until an event asks to be reported"},
    {"aboveThresholds", "it is sampled out"},
}};

constexpr std::array<Words, kDropReasons> kDropReasonWords{{
    {"noConsent", "the user does not consent to the submission of diagnostics"},
    {"noClientList", "the storebag has no client list"},
    {"noMatchingClient", "no entry names the client and service"},
    {"countryNotListed", "the entry does not list the device's country"},
    {"deviceNotListed", "the entry does not list the device"},
    {"noFilters", "the entry has no filters"},
    {"noSamplingThreshold", "the entry has no sampling threshold"},
    {"sampledOut", "the session is sampled out"},
    {"parentDoesNotReport", "the session above does not report"},
    {"stoppedByServer", "the server answered an earlier post with a failure of its own (5xx)"},
    {"thresholdRecord", "it completed a batch, whose last record is never sent"},
    {"noURL", "there is no URL to post to"},
    {"noIdentifier", "the device has no identifier to post under"},
    {"notSerialisable", "JSON cannot carry it"},
    {"noRoom", "too many events are held"},
    {"serverTooSlow", "the server takes too little"},
    {"sessionEnded", "the session ended or started anew while it was held"},
    {"cutOff", "the backend ended before its fate was known"},
    {"takesNoEvents", "the backend takes no events of sessions"},
    {"noAdaptor", "the adaptor cannot be reached"},
}};

constexpr std::array<std::string_view, 3> kFates{"posted", "refused", "failed"};

constexpr std::array<Words, 4> kUnservedReasons{{
    {"notStarted", "the session is not started"},
    {"noStorebag", "there is no storebag for the session's client type"},
    {"noBackends", "the storebag has no backends for the session"},
    {"incomplete", "it lacks its category, its type or what identifies its session"},
}};

template <typename Table, typename Reason>
const auto& entryOf(const Table& table, Reason reason) {
    const auto at = static_cast<std::size_t>(reason);
    assert(at < table.size());
    return table[at];
}

}  // namespace

std::string_view keyOf(BackendState state) {
    return entryOf(kStates, state);
}

std::string_view keyOf(EventLedger::Fate fate) {
    return entryOf(kFates, fate);
}

std::string_view keyOf(ReportingReason reason) {
    return entryOf(kReportingReasons, reason).key;
}

std::string_view textOf(ReportingReason reason) {
    return entryOf(kReportingReasons, reason).text;
}

std::string_view keyOf(DropReason reason) {
    return entryOf(kDropReasonWords, reason).key;
}

std::string_view textOf(DropReason reason) {
    return entryOf(kDropReasonWords, reason).text;
}

std::string_view keyOf(UnservedReason reason) {
    return entryOf(kUnservedReasons, reason).key;
}

std::string_view textOf(UnservedReason reason) {
    return entryOf(kUnservedReasons, reason).text;
}

}  // namespace quorvane
