#pragma once

#include "platform/value/Value.h"

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace quorvane::platform {

/// File operations by path. Paths are used as they stand (see rooted()); none follows a symbolic link in the
/// last component where it writes. Errors are errno values in a std::error_code.

std::vector<std::string> listDirectory(const std::string& path, std::error_code& error);
bool createDirectories(const std::string& path);
bool fileExists(const std::string& path);
/// Birth time (statx(2)); nothing when the file is absent or its file system keeps none.
std::optional<Date> fileCreationDate(const std::string& path);
/// Creates an empty file, mode 0640; an existing one is left as it is.
bool createFile(const std::string& path);
bool removeFile(const std::string& path);
enum class AppendResult { Appended, OpenFailed, WriteFailed };
/// Appends the bytes to a file that is there, in one write. WriteFailed also when only some went in.
AppendResult appendToFile(const std::string& path, std::string_view bytes);
/// The whole file; nothing when it cannot be read or is larger than the limit in bytes.
std::optional<Data> readFile(const std::string& path, std::size_t limit = 64u << 20);
/// Replaces the file as a whole (a temporary file beside it, then rename(2)).
bool replaceFile(const std::string& path, std::span<const std::uint8_t> bytes, unsigned mode = 0640);

/// Lets the process have as many descriptors open as its hard limit allows (getrlimit(2)).
void allowAllDescriptors();

}  // namespace quorvane::platform
