#include "platform/crypto/Uuid.h"

#include <systemd/sd-id128.h>

#include <algorithm>
#include <iterator>

#include <fmt/format.h>

namespace quorvane::platform {

std::array<std::uint8_t, 16> randomUuidBytes() {
    sd_id128_t id{};
    // Fails only where the kernel gives no random bytes at all.
    if (::sd_id128_randomize(&id) < 0) return {};
    std::array<std::uint8_t, 16> bytes{};
    std::copy(std::begin(id.bytes), std::end(id.bytes), bytes.begin());
    return bytes;
}

std::string randomUuidText() {
    std::string text;
    text.reserve(36);
    const auto bytes = randomUuidBytes();
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        fmt::format_to(std::back_inserter(text), "{:02X}", bytes[i]);
    }
    return text;
}

}  // namespace quorvane::platform
