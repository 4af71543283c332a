#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace quorvane::platform {

/// The 16 bytes of a new random UUID (RFC 4122 version 4).
std::array<std::uint8_t, 16> randomUuidBytes();

/// A new random UUID in its canonical upper-case text form.
std::string randomUuidText();

}  // namespace quorvane::platform
