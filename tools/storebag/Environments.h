#pragma once

#include <array>
#include <string_view>

namespace quorvane::tools {

/// The keys of a bag that devices of one environment each are configured from.
inline constexpr std::array<std::string_view, 4> kEnvironments{"development", "velmora_internal", "seed",
                                                               "release"};

}  // namespace quorvane::tools
