#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace quorvane::platform {

/// Letter case in UTF-8 texts, by Unicode's simple mapping (one code point to one), whatever the process's
/// locale; bytes that are not UTF-8 count as they stand. All are thread-safe; comparing ASCII allocates
/// nothing.

std::string lowercased(std::string_view text);
bool equalsIgnoringCase(std::string_view a, std::string_view b);
/// Whether the part, which may be empty, stands somewhere in the text.
bool containsIgnoringCase(std::string_view text, std::string_view part);

/// Whether the text is well-formed UTF-8 (RFC 3629).
bool isUtf8(std::string_view text);
/// How many code units the text, which is UTF-8, has in UTF-16.
std::size_t utf16Length(std::string_view text);
/// The text in UTF-8; nothing when half of a surrogate pair stands alone in it.
std::optional<std::string> utf8FromUtf16(std::u16string_view text);
/// The text in UTF-16; nothing when it is not UTF-8.
std::optional<std::u16string> utf16FromUtf8(std::string_view text);

/// The text with its ASCII control characters written as \n, \r or \xNN, all but the kept ones.
std::string escapedAsciiControls(std::string_view text, std::string_view kept);
/// The same, and also the controls above ASCII (U+0080 to U+009F), which steer a terminal as well, whether in
/// UTF-8 or as bytes on their own.
std::string escapedControls(std::string_view text, std::string_view kept);

}  // namespace quorvane::platform
