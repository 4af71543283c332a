#include "collector/BagFolder.h"

#include "collector/StartError.h"
#include "platform/base/DescriptorIO.h"
#include "platform/base/FileManager.h"
#include "platform/base/Log.h"
#include "platform/base/UniqueDescriptor.h"
#include "platform/value/Bytes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <system_error>
#include <utility>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace quorvane::collector {

namespace {

/// Not blocking, so that a FIFO in the folder cannot hold the server up.
std::optional<BagFolder::Bag> readBag(const std::string& path) {
    const platform::UniqueDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
    if (status.st_size > static_cast<off_t>(BagFolder::kMaximumBagBytes)) return std::nullopt;
    Data bytes(static_cast<std::size_t>(status.st_size));
    if (platform::readAt(file.get(), bytes, 0) != bytes.size()) return std::nullopt;
    return BagFolder::Bag{.bytes = std::string(platform::textOf(bytes)), .modified = status.st_mtim.tv_sec};
}

}  // namespace

BagFolder::BagFolder(std::string path) : _path(std::move(path)) {
    std::error_code error;
    platform::listDirectory(_path, error);
    if (error) throw StartError(fmt::format("cannot read the folder {}: {}", _path, error.message()));
}

std::optional<BagFolder::Bag> BagFolder::bag(std::string_view name) const {
    std::error_code error;
    const auto entries = platform::listDirectory(_path, error);
    if (error) throw std::system_error(error, _path);
    const auto entry = std::find(entries.begin(), entries.end(), name);
    // Hidden files are unfinished ones and leftovers.
    if (entry == entries.end() || entry->starts_with('.')) return std::nullopt;
    auto bag = readBag(fmt::format("{}/{}", _path, *entry));
    if (!bag) platform::logWarning("{} in {} is no file that can be served", *entry, _path);
    return bag;
}

std::string httpDate(std::int64_t seconds) {
    // Years have four digits there; a file system's times reach further.
    constexpr std::int64_t first = -62'167'219'200;
    constexpr std::int64_t last = 253'402'300'799;
    return fmt::format("{:%a, %d %b %Y %H:%M:%S} GMT", fmt::gmtime(std::clamp(seconds, first, last)));
}

}  // namespace quorvane::collector
