#pragma once

#include "platform/value/Value.h"

#include <array>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace quorvane {

/// Room for a 40-character device identifier and its terminating zero.
using DeviceIdentifier = std::array<char, 41>;

std::optional<std::string> productVersion();
std::optional<std::string> buildVersion();
std::optional<std::string> productType();
std::optional<std::string> deviceName();
std::optional<std::string> hardwareModel();
std::optional<std::string> serialNumber();

/// Whether the release type is exactly "Internal"; settled on first use. Thread-safe.
bool isInternalBuild();

/// Copies "UniqueDeviceID" into the buffer and ends it with a zero. Leaves the buffer as it is when there is
/// no answer or the answer and its zero do not fit.
void copyDeviceIdentifier(std::span<char> buffer);

/// The lower-cased client and service names joined by ":"; an absent name counts as empty.
std::string userInfoKey(const Dictionary* userInfo);

/// A random UUID, the same for the life of the process. Thread-safe.
const std::string& processIdentifier();

}  // namespace quorvane
