#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace quorvane::platform {

/// The bytes read as characters, and back; both refer to what they were given.
inline std::string_view textOf(std::span<const std::uint8_t> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}
inline std::span<const std::uint8_t> bytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

/// Two lower-case hexadecimal digits a byte.
std::string hexOf(std::span<const std::uint8_t> bytes);

}  // namespace quorvane::platform
