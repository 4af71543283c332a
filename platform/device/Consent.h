#pragma once

#include <string_view>

namespace quorvane::platform {

inline constexpr std::string_view kConsentFile = "/etc/quorvane/consent.toml";
inline constexpr std::string_view kConsentKey = "diagnostics_submission";

/// The user's consent to the submission of diagnostics, as that file says under that key. False when absent
/// or malformed (a malformed file is logged by name).
bool diagnosticsSubmissionAllowed();

}  // namespace quorvane::platform
