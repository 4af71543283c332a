#pragma once

#include "backends/ReportingRules.h"
#include "platform/value/Value.h"

#include <cstdint>
#include <optional>

namespace quorvane {

/// Events of one method that a batch holds where no entry says otherwise.
inline constexpr std::int32_t kDefaultEventThreshold = 49;

/// What a client entry sets beside the state, as far as the rules came to it; what it leaves alone keeps the
/// value that it has. Points into the entry.
struct EntrySettings {
    /// Of every entry that matches.
    std::optional<bool> batchEvents;

    /// Of an entry by which the state was judged.
    struct Identity {
        std::int32_t hierarchy;
        DnuType dnuType;
    };
    std::optional<Identity> identity;

    /// Of an entry that left nothing but the sampling to settle the state.
    struct Reporting {
        const Array* filters;
        std::optional<Value> samplingThreshold;
        bool comparedOverride;  ///< else what was in force stays
        std::optional<Value> overrideSampling;
        std::optional<std::int32_t> eventThreshold;
        std::optional<std::int32_t> extrasOnInternal;
    };
    std::optional<Reporting> reporting;
};

EntrySettings settingsUnder(const ReportingDecision& decision, bool consent);

/// The entry's "extras_on_internal", which counts where no rule applies, too.
std::optional<std::int32_t> extrasOnInternalUnder(const Dictionary& entry);

}  // namespace quorvane
