#include "platform/value/Text.h"

#include <clocale>
#include <cwctype>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>

#include <fmt/format.h>

namespace quorvane::platform {

namespace {

/// A byte that starts no well-formed sequence stands for itself, above all code points.
constexpr char32_t kRawByte = 0x110000;

bool isAscii(char c) {
    return static_cast<unsigned char>(c) < 0x80;
}

bool isAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return isAscii(c); });
}

/// How many bytes at the front are ASCII, in steps of eight.
std::size_t asciiWords(std::string_view text) {
    constexpr std::uint64_t highBits = 0x8080'8080'8080'8080;
    std::size_t count = 0;
    for (std::uint64_t word = 0; text.size() - count >= sizeof word; count += sizeof word) {
        std::memcpy(&word, text.data() + count, sizeof word);
        if ((word & highBits) != 0) break;
    }
    return count;
}

char loweredAscii(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

/// The bytes of the well-formed sequence (RFC 3629) that the text starts with; 1 for a byte on its own.
std::size_t sequenceLength(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
    const std::size_t length = first < 0xc2 ? 1 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : first < 0xf5 ? 4 : 1;
    if (length == 1 || text.size() < length) return 1;
    for (std::size_t i = 1; i < length; ++i)
        if ((byte(i) & 0xc0) != 0x80) return 1;
    const unsigned char second = byte(1);
    const bool overlong = (first == 0xe0 && second < 0xa0) || (first == 0xf0 && second < 0x90);
    const bool outside = (first == 0xed && second >= 0xa0) || (first == 0xf4 && second >= 0x90);
    return overlong || outside ? 1 : length;
}

/// Takes one code point, or one raw byte, off the front of the text, which is not empty.
char32_t takeCodePoint(std::string_view& text) {
    const std::size_t length = sequenceLength(text);
    const auto first = static_cast<unsigned char>(text.front());
    char32_t point = first;
    if (length > 1) {
        point = first & (0xffu >> (length + 1));
        for (std::size_t i = 1; i < length; ++i)
            point = (point << 6) | (static_cast<unsigned char>(text[i]) & 0x3fu);
    } else if (first >= 0x80) {
        point += kRawByte;
    }
    text.remove_prefix(length);
    return point;
}

void appendCodePoint(std::string& out, char32_t point) {
    const auto put = [&out](char32_t byte) { out += static_cast<char>(byte); };
    const auto continuation = [&](unsigned shift) { put(0x80 | ((point >> shift) & 0x3f)); };
    if (point < 0x80) {
        put(point);
    } else if (point >= kRawByte) {
        put(point - kRawByte);
    } else if (point < 0x800) {
        put(0xc0 | (point >> 6));
        continuation(0);
    } else if (point < 0x10000) {
        put(0xe0 | (point >> 12));
        continuation(6);
        continuation(0);
    } else {
        put(0xf0 | (point >> 18));
        continuation(12);
        continuation(6);
        continuation(0);
    }
}

/// The C library's Unicode tables; without them only ASCII has case.
char32_t lowered(char32_t point) {
    static const locale_t unicode = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (point >= kRawByte || unicode == nullptr) return point;
    return static_cast<char32_t>(::towlower_l(static_cast<wint_t>(point), unicode));
}

char32_t takeLowered(std::string_view& text) {
    if (!isAscii(text.front())) return lowered(takeCodePoint(text));
    const char c = loweredAscii(text.front());
    text.remove_prefix(1);
    return static_cast<char32_t>(c);
}

void appendEscape(std::string& out, unsigned char value) {
    fmt::format_to(std::back_inserter(out), "\\x{:02x}", value);
}

void appendEscaped(std::string& out, char c, std::string_view kept) {
    const bool control = static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
    if (!control || kept.find(c) != std::string_view::npos)
        out += c;
    else if (c == '\n')
        out += "\\n";
    else if (c == '\r')
        out += "\\r";
    else
        appendEscape(out, static_cast<unsigned char>(c));
}

}  // namespace

std::string lowercased(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) appendCodePoint(out, takeLowered(text));
    return out;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    // Most keys differ in their first letters.
    while (!a.empty() && !b.empty() && isAscii(a.front()) && isAscii(b.front())) {
        if (loweredAscii(a.front()) != loweredAscii(b.front())) return false;
        a.remove_prefix(1);
        b.remove_prefix(1);
    }
    while (!a.empty() && !b.empty())
        if (takeLowered(a) != takeLowered(b)) return false;
    return a.empty() && b.empty();
}

bool containsIgnoringCase(std::string_view text, std::string_view part) {
    // Some letters outside ASCII, such as the sign of the kelvin, have their small letter inside it.
    if (!isAscii(text) || !isAscii(part)) return lowercased(text).find(lowercased(part)) != std::string::npos;
    return std::search(text.begin(), text.end(), part.begin(), part.end(),
                       [](char a, char b) { return loweredAscii(a) == loweredAscii(b); }) != text.end() ||
           part.empty();
}

bool isUtf8(std::string_view text) {
    for (;;) {
        text.remove_prefix(asciiWords(text));
        if (text.empty()) return true;
        const std::size_t length = sequenceLength(text);
        if (length == 1 && !isAscii(text.front())) return false;
        text.remove_prefix(length);
    }
}

std::size_t utf16Length(std::string_view text) {
    std::size_t units = 0;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        const bool continuation = (byte & 0xc0) == 0x80;
        const bool outsideBasicPlane = byte >= 0xf0;
        units += continuation ? 0 : outsideBasicPlane ? 2 : 1;
    }
    return units;
}

std::optional<std::string> utf8FromUtf16(std::u16string_view text) {
    const auto isHalf = [](char32_t unit, char32_t first) { return unit >= first && unit < first + 0x400; };
    constexpr char32_t leading = 0xd800;
    constexpr char32_t trailing = 0xdc00;
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t point = text[i];
        if (isHalf(point, trailing)) return std::nullopt;
        if (isHalf(point, leading)) {
            if (++i == text.size() || !isHalf(text[i], trailing)) return std::nullopt;
            point = 0x10000 + ((point - leading) << 10) + (text[i] - trailing);
        }
        appendCodePoint(out, point);
    }
    return out;
}

std::optional<std::u16string> utf16FromUtf8(std::string_view text) {
    std::u16string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const char32_t point = takeCodePoint(text);
        if (point >= kRawByte) return std::nullopt;
        if (point >= 0x10000) out += static_cast<char16_t>(0xd7c0 + (point >> 10));
        out += static_cast<char16_t>(point >= 0x10000 ? 0xdc00 + (point & 0x3ff) : point);
    }
    return out;
}

std::string escapedAsciiControls(std::string_view text, std::string_view kept) {
    std::string out;
    out.reserve(text.size() + 8);
    for (const char c : text) appendEscaped(out, c, kept);
    return out;
}

std::string escapedControls(std::string_view text, std::string_view kept) {
    std::string out;
    out.reserve(text.size() + 8);
    while (!text.empty()) {
        if (isAscii(text.front())) {
            appendEscaped(out, text.front(), kept);
            text.remove_prefix(1);
            continue;
        }
        const char32_t point = takeCodePoint(text);
        const char32_t value = point >= kRawByte ? point - kRawByte : point;
        if (value >= 0x80 && value < 0xa0)
            appendEscape(out, static_cast<unsigned char>(value));
        else
            appendCodePoint(out, point);
    }
    return out;
}

}  // namespace quorvane::platform
