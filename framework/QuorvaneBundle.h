#pragma once

#include "platform/value/Value.h"

#include <optional>
#include <string>
#include <string_view>

namespace quorvane {

/// The client framework's bundle. Both functions read their file afresh at every call.

inline constexpr std::string_view kBundleInfoFile = "/usr/share/quorvane/framework/Info.plist";
inline constexpr std::string_view kPublicKeyFile = "/usr/share/quorvane/framework/publicKey.der";

/// Its "CFBundleVersion".
std::optional<std::string> bundleVersion();

/// The bytes of the key that storebags are verified with.
std::optional<Data> publicKeyResource();

/// The version used where the bundle gives none.
inline constexpr const char* kDefaultBundleVersion = "7.0";

}  // namespace quorvane
