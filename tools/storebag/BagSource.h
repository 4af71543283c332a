#pragma once

#include "platform/value/Value.h"

#include <string>

namespace quorvane::tools {

/// The bag that stands in a file as TOML, JSON or a property list; the format is "toml", "json", "plist" or,
/// to go by the file's ending, empty. Throws a Failure that names the file and, where they are known, the
/// line and the key.
Dictionary readBagSource(const std::string& path, const std::string& format);

}  // namespace quorvane::tools
