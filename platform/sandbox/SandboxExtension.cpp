#include "platform/sandbox/SandboxExtension.h"

#include "platform/base/ThreadAnnotations.h"
#include "platform/base/UserAccount.h"
#include "platform/crypto/Uuid.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cassert>
#include <cerrno>
#include <map>

#include <fmt/format.h>

namespace quorvane::platform {

namespace {

struct Issued {
    ExtensionOwner owner;
    UniqueDescriptor file;
    RemoveFileRequest removeFile;
    UserAccount::Charge charge;
};

Mutex mutex;
std::map<std::string, Issued> issuedTokens GUARDED_BY(mutex);

std::size_t countOf(ExtensionOwner owner) REQUIRES(mutex) {
    const auto isOwners = [=](const auto& entry) { return entry.second.owner.number == owner.number; };
    return static_cast<std::size_t>(std::count_if(issuedTokens.begin(), issuedTokens.end(), isOwners));
}

std::optional<Issued> take(const std::string& token) {
    const MutexLock lock(mutex);
    const auto found = issuedTokens.find(token);
    if (found == issuedTokens.end()) return std::nullopt;
    Issued issued = std::move(found->second);
    issuedTokens.erase(found);
    return issued;
}

bool canBeReadFrom(const UniqueDescriptor& file) {
    const int flags = ::fcntl(file.get(), F_GETFL);
    return flags >= 0 && (flags & O_PATH) == 0 && (flags & O_ACCMODE) != O_WRONLY;
}

/// The path that the kernel knows the descriptor by; of a deleted file it is no path.
std::string kernelPath(int descriptor) {
    std::array<char, 4096> path;
    const ssize_t size =
        ::readlink(fmt::format("/proc/self/fd/{}", descriptor).c_str(), path.data(), path.size());
    return std::string(path.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
}

bool names(const std::string& path, int descriptor) {
    struct stat passed {};
    struct stat named {};
    if (::fstat(descriptor, &passed) != 0 || passed.st_nlink == 0) return false;
    if (::lstat(path.c_str(), &named) == 0)
        return named.st_dev == passed.st_dev && named.st_ino == passed.st_ino;
    // A folder that only the client may search, or sees at all, hides the file itself from the daemon, but
    // not its name.
    return (errno == EACCES || errno == ENOENT) && kernelPath(descriptor) == path;
}

}  // namespace

ExtensionOwner newExtensionOwner(uid_t user) {
    static std::atomic<std::uint64_t> last{0};
    return {++last, user};
}

std::optional<std::string> issueSandboxExtension(ExtensionOwner owner, UniqueDescriptor file,
                                                 RemoveFileRequest removeFile) {
    if (!canBeReadFrom(file)) return std::nullopt;
    std::string token = randomUuidText();
    const MutexLock lock(mutex);
    if (countOf(owner) >= kExtensionsPerOwner) return std::nullopt;
    auto charge = UserAccount::of(owner.user)->charge(UserAccount::Slot::Files, 1);
    if (!charge) return std::nullopt;
    Issued issued{owner, std::move(file), std::move(removeFile), *std::move(charge)};
    [[maybe_unused]] const bool isNew = issuedTokens.emplace(token, std::move(issued)).second;
    assert(isNew && "two owners of one token could read each other's file");
    return token;
}

bool ownsSandboxExtension(ExtensionOwner owner, const std::string& token) {
    const MutexLock lock(mutex);
    const auto found = issuedTokens.find(token);
    return found != issuedTokens.end() && found->second.owner.number == owner.number;
}

void revokeSandboxExtensions(ExtensionOwner owner) {
    const MutexLock lock(mutex);
    std::erase_if(issuedTokens, [=](const auto& entry) { return entry.second.owner.number == owner.number; });
}

std::size_t outstandingSandboxExtensions() {
    const MutexLock lock(mutex);
    return issuedTokens.size();
}

SandboxExtension SandboxExtension::consume(const std::string& token, const std::string& path) {
    SandboxExtension extension;
    std::optional<Issued> issued = take(token);
    if (!issued || !names(path, issued->file.get())) return extension;
    extension._token = token;
    extension._file = std::move(issued->file);
    extension._removeFile = std::move(issued->removeFile);
    return extension;
}

void SandboxExtension::requestRemoval() const {
    if (_removeFile) _removeFile(_token);
}

}  // namespace quorvane::platform
