#pragma once

#include <string>

namespace quorvane {

/// The identifier that posted messages carry. With the consent flag respected and no consent given it lasts
/// only as long as the process; otherwise it is made once and kept in
/// /var/lib/quorvane/persistent-identifier. An identifier that cannot be stored lasts as long as the process.
/// Thread-safe.
std::string getPersistentIdentifierForDNU(bool respectConsent);

}  // namespace quorvane
