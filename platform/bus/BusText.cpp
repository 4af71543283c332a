#include "platform/bus/BusText.h"

#include "platform/value/Text.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace quorvane::platform {

namespace {

constexpr std::uint64_t kOnes = 0x0101'0101'0101'0101;
constexpr std::uint64_t kHighBits = kOnes << 7;

/// Whether the word's bytes are all ASCII and none is 0.
bool isPlain(std::uint64_t word) {
    return (((word - kOnes) | word) & kHighBits) == 0;
}

/// How many characters at the start are plain, or a few less.
std::size_t plainStart(std::string_view text) {
    std::uint64_t word = 0;
    std::size_t at = 0;
    for (; text.size() - at >= sizeof word; at += sizeof word) {
        std::memcpy(&word, text.data() + at, sizeof word);
        if (!isPlain(word)) return at;
    }
    if (at == text.size()) return at;
    word = kOnes;
    std::memcpy(&word, text.data() + at, text.size() - at);
    return isPlain(word) ? text.size() : at;
}

/// For texts in UTF-8: U+FDD0 to U+FDEF, and the last two of every 65,536.
bool holdsNoncharacter(std::string_view text) {
    for (std::size_t at = 2; at < text.size(); ++at) {
        const auto byte = [&](std::size_t back) { return static_cast<unsigned char>(text[at - back]); };
        if (byte(1) == 0xb7 && byte(2) == 0xef && byte(0) >= 0x90 && byte(0) <= 0xaf) return true;
        if (byte(1) == 0xbf && byte(0) >= 0xbe && (byte(2) & 0x0f) == 0x0f) return true;
    }
    return false;
}

}  // namespace

bool isBusText(std::string_view text) {
    // Nearly all are short and plain.
    text.remove_prefix(plainStart(text));
    return text.empty() ||
           (text.find('\0') == std::string_view::npos && isUtf8(text) && !holdsNoncharacter(text));
}

}  // namespace quorvane::platform
