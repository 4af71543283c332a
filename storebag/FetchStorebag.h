#pragma once

#include "platform/Value.h"

#include <cstdint>
#include <optional>
#include <string>

namespace quorvane {

/// Downloads the named storebag with a conditional request, verifies its signature and returns the bag;
/// blocks up to 15 s. Nothing on any failure, which is logged, and when the server reports the bag unchanged.
///   maxAge        seconds; written whenever an answer came
///   notModified   set to true when the server reports the bag unchanged, else left alone
///   lastModified  in: the cached bag's "Last-Modified", out: the new one; may be null
std::optional<Dictionary> fetchStorebagWithName(const std::optional<std::string>& name, std::int32_t& maxAge,
                                                bool& notModified, std::optional<std::string>* lastModified);

}  // namespace quorvane
