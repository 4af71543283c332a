#include "platform/value/Bytes.h"

namespace quorvane::platform {

std::string hexOf(std::span<const std::uint8_t> bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string hex(2 * bytes.size(), '0');
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        hex[2 * at] = digits[bytes[at] >> 4];
        hex[2 * at + 1] = digits[bytes[at] & 0xf];
    }
    return hex;
}

}  // namespace quorvane::platform
