#pragma once

#include "backends/BackendState.h"
#include "platform/value/Value.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorvane {

/// Whether an HTTPS backend reports, decided from its client entries and from who reports on which device.
/// Pure functions: they read nothing else, log nothing and keep nothing, so that a decision can be tried out
/// without a backend.

/// Who reports, and on which device. Pointers are borrowed for the call.
struct ReportingFacts {
    const Dictionary* userInfo = nullptr;     ///< null while the session has none
    bool requireUserInfo = false;             ///< without it no rule applies
    bool consent = false;                     ///< the user's, to the submission of diagnostics
    std::optional<std::string> country = {};  ///< of the device's locale, such as "US"
    std::optional<std::string> productFamily = {};
    double draw = 0;  ///< in [0, 1); reports where it is at most the sampling threshold
};

/// How a consent override stands; the numbers are what session-stop events report.
enum class DnuType : std::int32_t { None = 0, OverriddenWithoutConsent = 1, OverriddenWithConsent = 2 };

struct ReportingDecision {
    BackendState state;
    ReportingReason reason;
    /// The first entry that matches the user info, or null; it points into the client list.
    const Dictionary* entry = nullptr;

    /// Whether the rules came as far as the entry's own: user info is required, there and matched.
    bool judgedEntry() const;
    /// Whether nothing but the sampling settled the state, so that all of the entry's settings count.
    bool settledBySampling() const;
};

/// The decision on a profile's client list, which may be null.
ReportingDecision decideReporting(const Array* clients, const ReportingFacts& facts);

enum class EntryMatch { Matches, OtherClient, OtherService };

/// Whether the entry is for the client and service of those names; an entry that names none is for all.
EntryMatch matchOf(const Dictionary& entry, const std::string* clientName, const std::string* serviceName);
bool matchClientNameAndServiceID(const Dictionary& entry, const std::string* clientName,
                                 const std::string* serviceName);

/// How the entry's consent override stands.
DnuType dnuTypeUnder(const Dictionary& entry, bool consent);

/// The names that an entry's text lists, as they stand between the commas; empty for a missing text.
Array commaSeparated(const std::string* text);

/// The value under the key if it is a number.
std::optional<Value> numberUnder(const Dictionary& entry, std::string_view key);

}  // namespace quorvane
