#include "collector/BagFolder.h"

#include "collector/StartError.h"
#include "platform/base/FileManager.h"
#include "platform/base/Log.h"
#include "platform/base/UniqueDescriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <system_error>
#include <utility>

#include <fmt/format.h>

namespace quorvane::collector {

namespace {

std::optional<std::string> readWhole(int descriptor, std::size_t size) {
    std::string bytes(size, '\0');
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count = ::pread(descriptor, bytes.data() + done, size - done, static_cast<off_t>(done));
        if (count <= 0) return std::nullopt;
        done += static_cast<std::size_t>(count);
    }
    return bytes;
}

/// Not blocking, so that a FIFO in the folder cannot hold the server up.
std::optional<BagFolder::Bag> readBag(const std::string& path) {
    const platform::UniqueDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
    if (status.st_size > static_cast<off_t>(BagFolder::kMaximumBagBytes)) return std::nullopt;
    auto bytes = readWhole(file.get(), static_cast<std::size_t>(status.st_size));
    if (!bytes) return std::nullopt;
    return BagFolder::Bag{.bytes = *std::move(bytes), .modified = status.st_mtim.tv_sec};
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
    static constexpr std::array days{"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static constexpr std::array months{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const std::time_t time = seconds;
    std::tm parts{};
    ::gmtime_r(&time, &parts);
    return fmt::format("{}, {:02} {} {:04} {:02}:{:02}:{:02} GMT",
                       days.at(static_cast<std::size_t>(parts.tm_wday)), parts.tm_mday,
                       months.at(static_cast<std::size_t>(parts.tm_mon)), parts.tm_year + 1900, parts.tm_hour,
                       parts.tm_min, parts.tm_sec);
}

}  // namespace quorvane::collector
