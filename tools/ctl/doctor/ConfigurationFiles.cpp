#include "tools/ctl/doctor/ConfigurationFiles.h"

#include "platform/base/Root.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace quorvane::ctl {

namespace {

namespace fs = std::filesystem;

bool isLeftOver(const std::string& name) {
    return name.starts_with('.') || name.ends_with('~') || name.find(".dpkg-") != std::string::npos;
}

}  // namespace

std::vector<std::string> configurationFiles() {
    std::vector<std::string> files;
    std::error_code error;
    fs::recursive_directory_iterator at(platform::rooted(kConfigurationFolder), error);
    for (; !error && at != fs::recursive_directory_iterator(); at.increment(error))
        if (!at->is_directory(error) && !isLeftOver(at->path().filename())) files.push_back(at->path());
    std::ranges::sort(files);
    return files;
}

}  // namespace quorvane::ctl
