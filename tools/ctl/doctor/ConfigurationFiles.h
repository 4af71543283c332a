#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace quorvane::ctl {

inline constexpr std::string_view kConfigurationFolder = "/etc/quorvane";

/// All files under that folder, but what editors and package managers leave there.
std::vector<std::string> configurationFiles();

}  // namespace quorvane::ctl
