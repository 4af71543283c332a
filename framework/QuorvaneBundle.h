#pragma once

#include "platform/value/Value.h"

#include <optional>
#include <string>

namespace quorvane {

/// The client framework's bundle, /usr/share/quorvane/framework/. Both read the file afresh at every call.

/// "CFBundleVersion" of its Info.plist.
std::optional<std::string> bundleVersion();

/// The bytes of its resource publicKey.der, the key that storebags are verified with.
std::optional<Data> publicKeyResource();

/// The version used where the bundle gives none.
inline constexpr const char* kDefaultBundleVersion = "7.0";

}  // namespace quorvane
