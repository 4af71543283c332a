#include "collector/Datagram.h"

#include "platform/value/Bytes.h"

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

namespace quorvane::collector {

namespace {

constexpr std::uint8_t kFormat = 1;
constexpr std::size_t kDeviceIDBytes = 40;
constexpr std::uint16_t kReliableFlag = 1;
constexpr std::uint16_t kExplicitAddressFlag = 2;

/// The header's fields; all wider than a byte are big-endian.
class Header {
  public:
    explicit Header(std::span<const std::uint8_t> bytes) : _bytes(bytes) {}

    std::uint8_t byte(std::size_t at) const { return _bytes[at]; }
    std::uint16_t word(std::size_t at) const {
        return static_cast<std::uint16_t>(_bytes[at] << 8 | _bytes[at + 1]);
    }
    std::uint32_t longWord(std::size_t at) const {
        return static_cast<std::uint32_t>(word(at)) << 16 | word(at + 2);
    }
    /// Fields that travel as their bitwise complement.
    std::uint16_t complementedWord(std::size_t at) const { return static_cast<std::uint16_t>(~word(at)); }
    std::uint32_t complementedLongWord(std::size_t at) const { return ~longWord(at); }

  private:
    std::span<const std::uint8_t> _bytes;
};

/// A text that was cut may end within a character.
std::string_view withoutHalfCharacter(std::string_view text) {
    std::size_t following = 0;
    while (following < std::min<std::size_t>(3, text.size()) &&
           (text[text.size() - 1 - following] & 0xc0) == 0x80)
        ++following;
    if (following == text.size()) return text;
    const auto first = static_cast<unsigned char>(text[text.size() - 1 - following]);
    const std::size_t expected = first >= 0xf0 ? 3 : first >= 0xe0 ? 2 : first >= 0xc0 ? 1 : 0;
    return following < expected ? text.substr(0, text.size() - 1 - following) : text;
}

/// Where keys end: every "=" that no backslash protects.
std::vector<std::size_t> separators(std::string_view text) {
    std::vector<std::size_t> found;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '\\')
            ++at;
        else if (text[at] == '=')
            found.push_back(at);
    }
    return found;
}

std::string unescaped(std::string_view value) {
    std::string result;
    result.reserve(value.size());
    for (std::size_t at = 0; at < value.size(); ++at) {
        if (value[at] == '\\' && at + 1 < value.size()) ++at;
        result += value[at];
    }
    return result;
}

}  // namespace

Dictionary valuesOfText(std::string_view text) {
    const auto ends = separators(text);
    /// Where the key that ends there starts.
    const auto keyStart = [&](std::size_t index) {
        const std::size_t earliest = index == 0 ? 0 : ends[index - 1] + 1;
        const std::size_t blank = text.substr(0, ends[index]).rfind(' ');
        return blank == std::string_view::npos || blank < earliest ? earliest : blank + 1;
    };
    Dictionary values;
    for (std::size_t index = 0; index < ends.size(); ++index) {
        const std::size_t start = keyStart(index);
        const bool last = index + 1 == ends.size();
        const std::size_t valueStart = ends[index] + 1;
        // The blank before the next key belongs to neither.
        const std::size_t valueEnd = last ? text.size() : std::max(valueStart, keyStart(index + 1) - 1);
        values.set(text.substr(start, ends[index] - start),
                   unescaped(text.substr(valueStart, valueEnd - valueStart)));
    }
    return values;
}

std::optional<Datagram> decodeDatagram(std::span<const std::uint8_t> bytes) {
    if (bytes.size() < Datagram::kHeaderBytes) return std::nullopt;
    const Header header(bytes);
    std::string_view text = platform::textOf(bytes.subspan(Datagram::kHeaderBytes));
    if (header.byte(2) != kFormat || header.complementedWord(14) != bytes.size() ||
        text.size() > Datagram::kMaximumTextBytes)
        return std::nullopt;

    Datagram datagram;
    datagram.versionMajor = header.byte(0);
    datagram.clientType = header.byte(1);
    datagram.eventTime = header.longWord(4) + header.byte(3) * 4 / 1e3;
    datagram.sessionID = header.complementedLongWord(8);
    datagram.clientVersion = header.complementedWord(12);
    datagram.method = header.word(16);
    datagram.status = header.word(18);
    const std::string_view deviceID = platform::textOf(bytes.subspan(20, kDeviceIDBytes));
    datagram.deviceID = deviceID.substr(0, deviceID.find('\0'));
    datagram.eventNumber = header.word(60);
    datagram.reliable = (header.word(62) & kReliableFlag) != 0;
    datagram.explicitAddress = (header.word(62) & kExplicitAddressFlag) != 0;
    datagram.cut = text.size() == Datagram::kMaximumTextBytes;
    if (datagram.cut) text = withoutHalfCharacter(text);
    datagram.values = valuesOfText(text);
    return datagram;
}

}  // namespace quorvane::collector
