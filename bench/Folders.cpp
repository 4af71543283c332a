#include "bench/Folders.h"

#include <cstdlib>
#include <stdexcept>

namespace quorvane::bench {

std::filesystem::path makeFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "quorvane-bench-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary folder: " + name);
    return name;
}

std::string programPath(const std::string& program) {
    return std::filesystem::canonical("/proc/self/exe").parent_path().parent_path() / program;
}

}  // namespace quorvane::bench
