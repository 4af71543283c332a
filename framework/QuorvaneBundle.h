#pragma once

#include "platform/value/Value.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvane {

/// The client framework's bundle. Both functions read their files afresh at every call.

inline constexpr std::string_view kBundleInfoFile = "/usr/share/quorvane/framework/Info.plist";
inline constexpr std::string_view kPublicKeyFile = "/usr/share/quorvane/framework/publicKey.der";
/// Holds further keys as *.der, while one takes another's place.
inline constexpr std::string_view kPublicKeyFolder = "/usr/share/quorvane/framework/publicKey.d";

/// Its "CFBundleVersion".
std::optional<std::string> bundleVersion();

struct PublicKeyResource {
    std::string file;
    std::optional<Data> der;  ///< Nothing when the file cannot be read.
};

/// The keys that storebags are verified with, in the order in which they are tried: kPublicKeyFile, even when
/// it is missing, unless it is and others are there, then the first 8 of kPublicKeyFolder by name.
std::vector<PublicKeyResource> publicKeyResources();

/// The version used where the bundle gives none.
inline constexpr const char* kDefaultBundleVersion = "7.0";

}  // namespace quorvane
