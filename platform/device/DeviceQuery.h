#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quorvane::platform {

/// The answer to one key of the device-information query ("UniqueDeviceID", "ProductVersion", "BuildVersion",
/// "ProductType", "DeviceName", "HWModelStr", "SerialNumber", "ReleaseType"): the text stored under the key
/// in /etc/quorvane/device.toml, else what the system knows, else nothing. Thread-safe.
std::optional<std::string> deviceInformation(std::string_view key);

}  // namespace quorvane::platform
