#pragma once

#include "platform/value/Value.h"
#include "storebag/StorebagStatus.h"
#include "util/Environment.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorvane {

/// Fetches the storebag of the client type and returns the section of the device's environment; nothing on
/// any failure, which is logged, and when the server reports the bag unchanged. Blocks, up to 15 s. A client
/// type without a storebag is asked for under an absent name, type 0 not at all. Thread-safe.
///   maxAge        seconds the section may be served from a cache, at most 86400 when the bag sets it; left
///                 alone when no answer came
///   version       the bag's version, written with a section
///   notModified   set to true when the cached section is still good, else left alone
///   lastModified  in: the cached bag's "Last-Modified", out: the answer's; may be null
///   attempt       out: all but its time; may be null
std::optional<Dictionary> fetchStorebagForEnvironmentAndClientType(
    std::int32_t clientType, std::int32_t& maxAge, std::optional<std::string>& version, bool& notModified,
    std::optional<std::string>* lastModified, FetchAttempt* attempt = nullptr);

/// The key of the section that devices of the environment run with, whether the bag has it or not: for seed,
/// with a warning, that of release where the bag has none of its own. Empty for no environment.
std::string_view sectionKeyForEnvironment(const Dictionary& bag, EnvironmentType environment);

/// Why a bag is not taken by devices that run with the section of that key.
enum class BagFault { NoSection, NoVersion };
std::optional<BagFault> faultOf(const Dictionary& bag, std::string_view sectionKey);
const char* textOf(BagFault fault);

}  // namespace quorvane
