#include "client/LentFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

namespace quorvane::client {

using platform::MutexLock;

namespace {

/// Opens the file's folder and resolves the path to it. The daemon compares paths with the one of the lent
/// descriptor; it cannot resolve links or ".." itself in a folder that only the client may search. Returns an
/// errno value.
int openFolder(const std::filesystem::path& path, OpenFile& file) {
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(path, error);
    if (error) return error.value();
    const std::filesystem::path folder = std::filesystem::canonical(absolute.parent_path(), error);
    if (error) return error.value();
    file.name = absolute.has_filename() ? absolute.filename().string() : ".";
    file.path = (folder / file.name).string();
    file.folder.reset(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    return file.folder ? 0 : errno;
}

}  // namespace

Result<std::shared_ptr<const OpenFile>> openRegularFile(const std::string& path) {
    const auto failure = [&path](ErrorCode code, const char* why) {
        return Error{code, "cannot upload " + path + ": " + why};
    };
    auto file = std::make_shared<OpenFile>();
    if (const int error = openFolder(path, *file); error != 0)
        return failure(ErrorCode::System, std::strerror(error));
    file->descriptor.reset(::openat(file->folder.get(), file->name.c_str(),
                                    O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    if (!file->descriptor && errno == ELOOP)
        return failure(ErrorCode::InvalidArgument, "it is a symbolic link");
    struct stat status {};
    if (!file->descriptor || ::fstat(file->descriptor.get(), &status) != 0)
        return failure(ErrorCode::System, std::strerror(errno));
    if (!S_ISREG(status.st_mode)) return failure(ErrorCode::InvalidArgument, "it is no regular file");
    file->bytes = static_cast<std::uint64_t>(status.st_size);
    file->device = status.st_dev;
    file->number = status.st_ino;
    return std::shared_ptr<const OpenFile>(std::move(file));
}

void LentFiles::add(const std::string& token, std::shared_ptr<const OpenFile> file) {
    assert(file != nullptr && "the daemon may ask for its removal at once");
    const MutexLock lock(_mutex);
    _files[token] = std::move(file);
}

void LentFiles::forget(const std::string& token) {
    const MutexLock lock(_mutex);
    _files.erase(token);
}

void LentFiles::keepLate(const std::string& token) {
    constexpr std::size_t most = 16;
    const MutexLock lock(_mutex);
    _late.push_back(token);
    if (_late.size() <= most) return;
    _files.erase(_late.front());
    _late.pop_front();
}

bool LentFiles::removeFile(const std::string& token) {
    const MutexLock lock(_mutex);
    const auto at = _files.find(token);
    if (at == _files.end()) return false;
    const std::shared_ptr<const OpenFile> file = std::move(at->second);
    _files.erase(at);
    // Relative to the folder opened at lending: someone may since have put another folder, or a link to one,
    // at its path to have a different file removed.
    struct stat now {};
    const int folder = file->folder.get();
    if (::fstatat(folder, file->name.c_str(), &now, AT_SYMLINK_NOFOLLOW) != 0) return false;
    return now.st_dev == file->device && now.st_ino == file->number &&
           ::unlinkat(folder, file->name.c_str(), 0) == 0;
}

}  // namespace quorvane::client
