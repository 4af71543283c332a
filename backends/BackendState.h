#pragma once

#include <cstdint>

namespace quorvane {

/// Whether a backend reports. Parent synchronisation leaves SampledOut alone.
enum class BackendState : std::int32_t { WaitingForUserInfo = 0, Disabled = 1, Enabled = 2, SampledOut = 3 };

/// Why a backend is in its state. Of the rules each names the first that settled it.
enum class ReportingReason : std::int32_t {
    NotSetUp,       ///< nothing has been decided yet
    AlwaysReports,  ///< the backend knows no rules
    ParentReports,
    ParentDoesNotReport,
    StoppedByServer,  ///< which answered a post with 5xx
    AskedByEvent,     ///< it was sampled out, and an event asked to be reported
    NoClientList,
    NoRuleApplies,  ///< the session does not require user info
    AwaitsUserInfo,
    NoMatchingClient,
    // From here on an entry matches, and its own rules decide.
    NoConsent,
    CountryNotListed,
    DeviceNotListed,
    NoFilters,
    NoSamplingThreshold,
    BelowThreshold,
    BetweenThresholds,  ///< above the sampling threshold, not above the override
    AboveThresholds,
};

/// A state and the reason for it. So aligned it is read and written at once, by clang without a library, too.
struct alignas(2 * sizeof(BackendState)) Standing {
    BackendState state = BackendState::WaitingForUserInfo;
    ReportingReason reason = ReportingReason::NotSetUp;
};

/// Of backends that know no rules.
inline constexpr Standing kAlwaysReporting{BackendState::Enabled, ReportingReason::AlwaysReports};

}  // namespace quorvane
