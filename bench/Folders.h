#pragma once

#include <filesystem>
#include <string>

namespace quorvane::bench {

/// A new folder among the temporary files; whoever asked removes it.
std::filesystem::path makeFolder();

/// The path of a program of this build, named as it lies in the build folder.
std::string programPath(const std::string& program);

}  // namespace quorvane::bench
