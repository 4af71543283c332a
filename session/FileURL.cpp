#include "session/FileURL.h"

#include "platform/value/Text.h"

#include <charconv>

namespace quorvane {

namespace {

bool isControlOrBlank(char c) {
    return static_cast<unsigned char>(c) <= 0x20 || c == 0x7f;
}

std::optional<char> decodedByte(std::string_view twoDigits) {
    unsigned byte = 0;
    const char* end = twoDigits.data() + twoDigits.size();
    const auto [stop, error] = std::from_chars(twoDigits.data(), end, byte, 16);
    if (twoDigits.size() != 2 || error != std::errc() || stop != end || byte == 0) return std::nullopt;
    return static_cast<char>(byte);
}

std::optional<std::string> percentDecoded(std::string_view text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t at = 0; at < text.size(); ++at) {
        char c = text[at];
        if (isControlOrBlank(c)) return std::nullopt;
        if (c == '%') {
            const auto byte = decodedByte(text.substr(at + 1, 2));
            if (!byte) return std::nullopt;
            c = *byte;
            at += 2;
        }
        decoded += c;
    }
    return decoded;
}

}  // namespace

std::optional<std::string> pathOfFileURL(std::string_view url) {
    constexpr std::string_view scheme = "file:";
    if (!platform::equalsIgnoringCase(url.substr(0, scheme.size()), scheme)) return std::nullopt;
    url.remove_prefix(scheme.size());
    if (url.starts_with("//")) {
        url.remove_prefix(2);
        const std::string_view host = url.substr(0, url.find('/'));
        if (!host.empty() && !platform::equalsIgnoringCase(host, "localhost")) return std::nullopt;
        url.remove_prefix(host.size());
    }
    // A query or a fragment may follow the path.
    return url.starts_with('/') ? percentDecoded(url.substr(0, url.find_first_of("?#"))) : std::nullopt;
}

}  // namespace quorvane
