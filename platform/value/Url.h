#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quorvane::platform {

/// The path with every byte percent-encoded that may not stand in a URL's path (RFC 3986, section 3.3).
std::string pathPercentEncoded(std::string_view path);

/// The text in UTF-8 with every byte percent-encoded that may not stand in a URL's query (RFC 3986, section
/// 3.4); what separates a query's keys ("&", "=", "+", ";") may, and stays.
std::string queryPercentEncoded(std::string_view text);

/// The URL with blanks and control characters, which may not stand in it, percent-encoded.
std::string percentEncodedBlanks(std::string_view url);

/// The bytes that the text stands for, whatever they are; nothing when a "%" has no two hex digits behind it.
std::optional<std::string> percentDecoded(std::string_view text);

/// Whether the text is an absolute URL by its characters: a scheme and a colon, then only what RFC 3986
/// allows as it stands, and "%" only before two hex digits.
bool isUrl(std::string_view text);

/// Scheme, host and port of a URL in lower case, as in "https://host" or "http://host:8080"; the scheme's own
/// port is left out. Empty for what has no "://".
std::string serverOfUrl(std::string_view url);

/// Whether the text begins with a scheme and "://". Without them, an HTTP client would take a host's name and
/// guess that it is to be asked in clear.
bool hasScheme(std::string_view url);

}  // namespace quorvane::platform
