#pragma once

#include "platform/value/Value.h"

#include "platform/value/Bytes.h"

#include <span>
#include <string>
#include <string_view>

namespace quorvane::tools {

/// The files that a command line names; "-" is standard input or output. All throw a Failure that names the
/// file.

inline constexpr unsigned kOwnerOnly = 0600;
inline constexpr unsigned kEverybody = 0644;  ///< Everybody reads, the owner writes.

/// The whole file, at most 64 MiB; also of a pipe.
Data readBytes(const std::string& path);
/// Replaces the file, or makes it, in one step; only a regular file is replaced.
void writeBytes(const std::string& path, std::span<const std::uint8_t> bytes, unsigned mode);
/// Makes the file in one step; never touches one that is there.
void writeNewFile(const std::string& path, std::span<const std::uint8_t> bytes, unsigned mode);

/// What messages call the file.
std::string_view nameOfInput(const std::string& path);

using platform::bytesOf;
using platform::textOf;

}  // namespace quorvane::tools
