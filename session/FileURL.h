#pragma once

#include <climits>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace quorvane {

/// The longest that a file's URL can be: "file://", a host, and every byte of a path percent-encoded.
inline constexpr std::size_t kMaximumFileURLBytes = 7 + 255 + std::size_t{3} * PATH_MAX;

/// The path of a file URL (RFC 8089), percent-decoded; nothing when the text is no such URL, is longer than
/// one can be, names another host, or its path is not absolute or holds a NUL.
std::optional<std::string> pathOfFileURL(std::string_view url);

}  // namespace quorvane
