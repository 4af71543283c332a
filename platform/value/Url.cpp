#include "platform/value/Url.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <system_error>
#include <utility>

#include <fmt/format.h>

namespace quorvane::platform {

namespace {

bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool isHexDigit(char c) {
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool isOneOf(char c, std::string_view characters) {
    return characters.find(c) != std::string_view::npos;
}

bool isAllowedInPath(char c) {
    return isLetter(c) || isDigit(c) || isOneOf(c, "-._~!$&'()*+,;=:@/");
}

bool isAllowedInQuery(char c) {
    return isAllowedInPath(c) || c == '?';
}

bool isScheme(std::string_view text) {
    const auto allowed = [](char c) { return isLetter(c) || isDigit(c) || isOneOf(c, "+-."); };
    return !text.empty() && isLetter(text.front()) && std::all_of(text.begin(), text.end(), allowed);
}

/// The text with all but the allowed bytes percent-encoded.
template <typename Predicate>
std::string percentEncoded(std::string_view text, const Predicate& allowed) {
    std::string encoded;
    encoded.reserve(text.size());
    for (const char c : text) {
        if (allowed(c))
            encoded += c;
        else
            fmt::format_to(std::back_inserter(encoded), "%{:02X}", static_cast<unsigned char>(c));
    }
    return encoded;
}

std::optional<char> decodedByte(std::string_view digits) {
    unsigned byte = 0;
    const char* end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, byte, 16);
    if (digits.size() != 2 || error != std::errc() || stop != end) return std::nullopt;
    return static_cast<char>(byte);
}

}  // namespace

std::string pathPercentEncoded(std::string_view path) {
    return percentEncoded(path, isAllowedInPath);
}

std::string queryPercentEncoded(std::string_view text) {
    return percentEncoded(text, isAllowedInQuery);
}

std::string percentEncodedBlanks(std::string_view url) {
    return percentEncoded(url, [](char c) { return static_cast<unsigned char>(c) > 0x20 && c != 0x7f; });
}

std::optional<std::string> percentDecoded(std::string_view text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '%') {
            decoded += text[at];
            continue;
        }
        const std::optional<char> byte = decodedByte(text.substr(at + 1, 2));
        if (!byte) return std::nullopt;
        decoded += *byte;
        at += 2;
    }
    return decoded;
}

bool isUrl(std::string_view text) {
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos || !isScheme(text.substr(0, colon))) return false;
    for (std::size_t at = colon + 1; at < text.size(); ++at) {
        const char c = text[at];
        const bool encoded =
            c == '%' && at + 2 < text.size() && isHexDigit(text[at + 1]) && isHexDigit(text[at + 2]);
        if (!encoded && !isAllowedInQuery(c) && !isOneOf(c, "#[]")) return false;
    }
    return true;
}

std::string serverOfUrl(std::string_view url) {
    const std::size_t scheme = url.find("://");
    if (scheme == std::string_view::npos) return {};
    const std::size_t start = scheme + 3;
    std::string_view authority = url.substr(start, url.find_first_of("/?#\\", start) - start);
    authority.remove_prefix(authority.rfind('@') + 1);
    std::string server = fmt::format("{}{}", url.substr(0, start), authority);
    std::transform(server.begin(), server.end(), server.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    for (const auto& [prefix, port] : {std::pair("https://", ":443"), std::pair("http://", ":80")})
        if (server.starts_with(prefix) && server.ends_with(port))
            server.erase(server.size() - std::string_view(port).size());
    return server;
}

bool hasScheme(std::string_view url) {
    const std::size_t end = url.find("://");
    return end != std::string_view::npos && isScheme(url.substr(0, end));
}

}  // namespace quorvane::platform
