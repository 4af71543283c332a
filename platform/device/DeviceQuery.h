#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace quorvane::platform {

inline constexpr std::string_view kDeviceFile = "/etc/quorvane/device.toml";

/// "UniqueDeviceID", "ProductVersion" and what else the system may know.
std::span<const std::string_view> deviceInformationKeys();

/// The answer to one key of the device-information query: the text stored under the key in that file, else
/// what the system knows, else nothing. Thread-safe.
std::optional<std::string> deviceInformation(std::string_view key);

}  // namespace quorvane::platform
