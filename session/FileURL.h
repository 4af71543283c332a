#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quorvane {

/// The path of a file URL (RFC 8089), percent-decoded; nothing when the text is no such URL, names another
/// host, or its path is not absolute or holds a NUL.
std::optional<std::string> pathOfFileURL(std::string_view url);

}  // namespace quorvane
