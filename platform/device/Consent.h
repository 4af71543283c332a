#pragma once

namespace quorvane::platform {

/// The user's consent to the submission of diagnostics: `diagnostics_submission` in
/// /etc/quorvane/consent.toml. False when absent or malformed (a malformed file is logged by name).
bool diagnosticsSubmissionAllowed();

}  // namespace quorvane::platform
