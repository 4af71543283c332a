#include "framework/Keys.h"
#include "framework/QuorvaneBundle.h"
#include "platform/base/Root.h"
#include "platform/system/NamedSandbox.h"
#include "tools/ctl/doctor/Checks.h"
#include "tools/ctl/doctor/ConfigurationFiles.h"
#include "tools/ctl/doctor/OwnProcess.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace quorvane::ctl {

namespace {

constexpr const char* kUsualUser = "quorvane";

struct User {
    uid_t number = 0;
    gid_t group = 0;
    std::string name;
};

std::optional<User> userOf(const passwd* account) {
    if (account == nullptr) return std::nullopt;
    return User{account->pw_uid, account->pw_gid, account->pw_name};
}

/// That of the process, else the one that the daemon has on a device where all is installed.
std::optional<User> daemonsUser(std::optional<pid_t> process) {
    struct stat status {};
    if (!process) return platform::rooted("/") == "/" ? userOf(::getpwnam(kUsualUser)) : std::nullopt;
    if (::stat(fmt::format("/proc/{}", *process).c_str(), &status) != 0) return std::nullopt;
    if (auto user = userOf(::getpwuid(status.st_uid))) return user;
    return User{status.st_uid, status.st_gid, std::to_string(status.st_uid)};
}

bool become(const User& user) {
    return ::initgroups(user.name.c_str(), user.group) == 0 && ::setgid(user.group) == 0 &&
           ::setuid(user.number) == 0;
}

std::vector<std::string> filesToRead() {
    std::vector<std::string> files = configurationFiles();
    for (PublicKeyResource& key : publicKeyResources()) files.push_back(std::move(key.file));
    files.push_back(platform::rooted(kBundleInfoFile));
    files.push_back(platform::sandboxProfileFile(kQuorvaneServiceName));
    return files;
}

/// One letter a file: r where this process's user can read it.
std::string lettersFor(const std::vector<std::string>& files) {
    std::string letters;
    for (const std::string& file : files) letters += ::access(file.c_str(), R_OK) == 0 ? 'r' : '-';
    return letters;
}

}  // namespace

Findings checkAccess(std::optional<pid_t> process) {
    const auto user = daemonsUser(process);
    if (::geteuid() != 0 || !user) return {};
    const std::vector<std::string> files = filesToRead();
    const auto letters = inOwnProcess([&] { return become(*user) ? lettersFor(files) : std::string(); });
    if (!letters || letters->size() != files.size()) return {};
    Findings findings;
    for (std::size_t at = 0; at < files.size(); ++at)
        if (letters->at(at) != 'r' && ::access(files[at].c_str(), F_OK) == 0)
            findings.push_back(fault(files[at],
                                     fmt::format("the daemon's user {} cannot read it", user->name),
                                     "chmod a+r it, and a+x the folders above it"));
    if (findings.empty())
        findings.push_back(
            good("access", fmt::format("the daemon's user {} can read every file", user->name)));
    return findings;
}

}  // namespace quorvane::ctl
