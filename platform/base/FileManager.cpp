#include "platform/base/FileManager.h"

#include "platform/base/DescriptorIO.h"
#include "platform/base/UniqueDescriptor.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>

namespace quorvane::platform {

namespace {

/// O_NONBLOCK, because open(2) of a named pipe waits for its other end: whoever can put one in a file's place
/// could otherwise stop the caller for ever. O_NOCTTY, because a terminal there must not become the daemon's.
UniqueDescriptor openFile(const std::string& path, int flags) {
    return UniqueDescriptor(::open(path.c_str(), flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0640));
}

/// Writes and syncs the file before it is renamed, so that a crash leaves the old file or the whole new one.
bool fillTemporary(int descriptor, std::span<const std::uint8_t> bytes, unsigned mode) {
    return ::fchmod(descriptor, static_cast<mode_t>(mode)) == 0 &&
           writeAll(descriptor, bytes) == bytes.size() && ::fsync(descriptor) == 0;
}

}  // namespace

std::vector<std::string> listDirectory(const std::string& path, std::error_code& error) {
    std::vector<std::string> names;
    std::filesystem::directory_iterator entries(path, error);
    while (!error && entries != std::filesystem::directory_iterator()) {
        names.push_back(entries->path().filename().string());
        entries.increment(error);
    }
    return names;
}

bool createDirectories(const std::string& path) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    return !error && std::filesystem::is_directory(path, error);
}

bool fileExists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

std::optional<Date> fileCreationDate(const std::string& path) {
    struct statx status {};
    if (::statx(AT_FDCWD, path.c_str(), 0, STATX_BTIME, &status) != 0 || (status.stx_mask & STATX_BTIME) == 0)
        return std::nullopt;
    return Date{status.stx_btime.tv_sec * 1'000'000 + status.stx_btime.tv_nsec / 1'000};
}

bool createFile(const std::string& path) {
    return static_cast<bool>(openFile(path, O_WRONLY | O_CREAT | O_NOFOLLOW));
}

bool removeFile(const std::string& path) {
    return ::unlink(path.c_str()) == 0;
}

AppendResult appendToFile(const std::string& path, std::string_view bytes) {
    const UniqueDescriptor file = openFile(path, O_WRONLY | O_APPEND | O_NOFOLLOW);
    if (!file) return AppendResult::OpenFailed;
    const ssize_t written = ::write(file.get(), bytes.data(), bytes.size());
    return written == static_cast<ssize_t>(bytes.size()) ? AppendResult::Appended : AppendResult::WriteFailed;
}

std::optional<Data> readFile(const std::string& path, std::size_t limit) {
    const UniqueDescriptor file = openFile(path, O_RDONLY);
    if (!file) return std::nullopt;
    // The size is only a hint: files in /proc and /sys report 0 or a whole page.
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) return std::nullopt;
    constexpr std::size_t kStep = 4096;
    const auto hint = static_cast<std::size_t>(std::max<off_t>(status.st_size, 0));
    Data bytes;
    std::size_t filled = 0;
    while (filled <= limit) {
        if (filled == bytes.size()) bytes.resize(std::max(filled * 2, std::min(hint, limit) + 1 + kStep));
        const ssize_t got = ::read(file.get(), bytes.data() + filled, bytes.size() - filled);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return std::nullopt;
        if (got == 0) {
            bytes.resize(filled);
            return bytes;
        }
        filled += static_cast<std::size_t>(got);
    }
    return std::nullopt;
}

bool replaceFile(const std::string& path, std::span<const std::uint8_t> bytes, unsigned mode) {
    std::string temporary = path + ".XXXXXX";
    const UniqueDescriptor file(::mkostemp(temporary.data(), O_CLOEXEC));
    if (!file) return false;
    if (fillTemporary(file.get(), bytes, mode) && ::rename(temporary.c_str(), path.c_str()) == 0) return true;
    ::unlink(temporary.c_str());
    return false;
}

void allowAllDescriptors() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace quorvane::platform
