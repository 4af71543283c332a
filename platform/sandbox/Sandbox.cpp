#include "platform/sandbox/Sandbox.h"

#include "platform/base/Owned.h"
#include "platform/base/UniqueDescriptor.h"

#include <fcntl.h>
#include <linux/landlock.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

namespace quorvane::platform {

namespace {

using Filter = Owned<std::remove_pointer_t<scmp_filter_ctx>, ::seccomp_release>;

// Landlock's rights since its versions 3 and 5, which the headers of the build may not name yet.
constexpr std::uint64_t kTruncate = 1u << 14;
constexpr std::uint64_t kIoctlDevice = 1u << 15;

constexpr std::uint64_t kReadRights = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR;
constexpr std::uint64_t kWriteRights =
    kReadRights | LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_MAKE_REG | LANDLOCK_ACCESS_FS_MAKE_DIR |
    LANDLOCK_ACCESS_FS_REMOVE_FILE | LANDLOCK_ACCESS_FS_REMOVE_DIR | kTruncate;
constexpr std::uint64_t kSocketRights = LANDLOCK_ACCESS_FS_MAKE_SOCK | LANDLOCK_ACCESS_FS_REMOVE_FILE;
#if defined(__SANITIZE_THREAD__)
/// ThreadSanitizer has a thread of its own from the start.
constexpr auto kThreadsAtStart = 2;
#else
constexpr auto kThreadsAtStart = 1;
#endif

/// The rights that a rule on something other than a folder may hold.
constexpr std::uint64_t kFileRights =
    LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_WRITE_FILE | kTruncate;
/// Everything the first version of Landlock can refuse.
constexpr std::uint64_t kBasicRights = (LANDLOCK_ACCESS_FS_MAKE_SYM << 1) - 1;

std::uint64_t rightsOf(SandboxAccess access) {
    switch (access) {
        case SandboxAccess::Read:
            return kReadRights;
        case SandboxAccess::Write:
            return kWriteRights;
        case SandboxAccess::Load:
            return LANDLOCK_ACCESS_FS_READ_FILE;
        case SandboxAccess::Socket:
            return kSocketRights;
    }
    return 0;
}

tl::unexpected<Error> cannot(std::string_view what, int error = errno) {
    return failure("cannot " + std::string(what) + ": " + std::strerror(error));
}

Result<void> checkSingleThread() {
    std::error_code error;
    const std::filesystem::directory_iterator threads("/proc/self/task", error);
    if (error) return cannot("count the process's threads", error.value());
    if (std::distance(begin(threads), end(threads)) > kThreadsAtStart)
        return failure("the process has more than one thread already");
    return {};
}

/// Whether the product cannot work without the folder: it writes there.
bool isNeeded(const SandboxPath& entry) {
    return entry.product && (entry.access == SandboxAccess::Write || entry.access == SandboxAccess::Socket);
}

/// Makes the product's folders that are absent. One that is only read need not be there: it would be empty.
Result<void> makeFolders(const SandboxProfile& profile) {
    for (const SandboxPath& entry : profile.paths) {
        if (!entry.product) continue;
        std::error_code error;
        if (std::filesystem::exists(entry.path, error)) continue;
        std::filesystem::create_directories(entry.path, error);
        if (error && isNeeded(entry)) return cannot("make the folder " + entry.path, error.value());
    }
    return {};
}

/// The rights that this kernel's Landlock can refuse; 0 when it has none or it is switched off.
std::uint64_t refusableRights() {
    const long version = ::syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
    if (version < 1) return 0;
    return kBasicRights | (version >= 3 ? kTruncate : 0) | (version >= 5 ? kIoctlDevice : 0);
}

Result<void> allow(const UniqueDescriptor& rules, const SandboxPath& entry, std::uint64_t refusable) {
    const UniqueDescriptor target(::open(entry.path.c_str(), O_PATH | O_CLOEXEC));
    struct stat status {};
    if (!target || ::fstat(target.get(), &status) != 0) {
        const bool absent = errno == ENOENT || errno == ENOTDIR;
        if (absent && !isNeeded(entry)) return {};
        return cannot("open " + entry.path);
    }
    landlock_path_beneath_attr rule{};
    rule.parent_fd = target.get();
    rule.allowed_access = rightsOf(entry.access) & refusable;
    if (!S_ISDIR(status.st_mode)) rule.allowed_access &= kFileRights;
    if (::syscall(SYS_landlock_add_rule, rules.get(), LANDLOCK_RULE_PATH_BENEATH, &rule, 0) != 0)
        return cannot("allow " + entry.path);
    return {};
}

Result<UniqueDescriptor> preparePathRules(const SandboxProfile& profile) {
    const std::uint64_t refusable = refusableRights();
    if (refusable == 0) return cannot("use Landlock");
    landlock_ruleset_attr attributes{};
    attributes.handled_access_fs = refusable;
    UniqueDescriptor rules(
        static_cast<int>(::syscall(SYS_landlock_create_ruleset, &attributes, sizeof attributes, 0)));
    if (!rules) return cannot("make a Landlock ruleset");
    for (const SandboxPath& entry : profile.paths)
        if (auto allowed = allow(rules, entry, refusable); !allowed) return tl::unexpected(allowed.error());
    return rules;
}

using Conditions = std::vector<scmp_arg_cmp>;

int refuse(const Filter& filter, int systemCall, int error, const Conditions& when = {}) {
    const int result = ::seccomp_rule_add_array(filter.get(), SCMP_ACT_ERRNO(static_cast<unsigned>(error)),
                                                systemCall, static_cast<unsigned>(when.size()), when.data());
    // EDOM: this architecture has no such system call.
    return result == -EDOM ? 0 : result;
}

/// That the argument's bits under the mask have this value.
scmp_arg_cmp argument(unsigned index, scmp_datum_t mask, scmp_datum_t value) {
    return {index, SCMP_CMP_MASKED_EQ, mask, value};
}

/// Landlock restricts truncation only from its version 3 (Linux 6.2) on: before, a process empties a file
/// that it may only read with truncate(2), or with open(2) and O_RDONLY | O_TRUNC. openat2(2) has its flags
/// in memory, where seccomp cannot look, so it is said not to exist.
int refuseEmptyingReadableFiles(const Filter& filter) {
    constexpr scmp_datum_t mask = O_ACCMODE | O_TRUNC;
    constexpr scmp_datum_t emptying = O_RDONLY | O_TRUNC;
    const struct {
        int systemCall, error;
        Conditions when;
    } ways[] = {
        {SCMP_SYS(truncate), EPERM, {}},
        {SCMP_SYS(truncate64), EPERM, {}},
        {SCMP_SYS(openat2), ENOSYS, {}},
        {SCMP_SYS(open), EPERM, {argument(1, mask, emptying)}},
        {SCMP_SYS(openat), EPERM, {argument(2, mask, emptying)}},
    };
    for (const auto& way : ways)
        if (const int result = refuse(filter, way.systemCall, way.error, way.when)) return result;
    return 0;
}

int refuseSystemCall(const Filter& filter, const SandboxRefusal& refusal) {
    const Conditions makesProcess{argument(0, CLONE_THREAD, 0)};
    return refuse(filter, refusal.systemCall, refusal.error,
                  refusal.systemCall == SCMP_SYS(clone) ? makesProcess : Conditions{});
}

Result<Filter> prepareFilter(const SandboxProfile& profile) {
    Filter filter(::seccomp_init(SCMP_ACT_ALLOW));
    if (filter == nullptr) return cannot("make a system-call filter", ENOMEM);
    // Through 32-bit system calls, which have other numbers, a process would get past the filter.
    if (const int result = ::seccomp_attr_set(filter.get(), SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_KILL_PROCESS))
        return cannot("set up the system-call filter", -result);
    if (const int result = refuseEmptyingReadableFiles(filter))
        return cannot("refuse the emptying of readable files", -result);
    for (const SandboxRefusal& refusal : profile.refusals)
        if (const int result = refuseSystemCall(filter, refusal))
            return cannot("refuse the system call " + refusal.name, -result);
    return filter;
}

Result<void> confine(const UniqueDescriptor& rules, const Filter& filter) {
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return cannot("renounce new privileges");
    if (::syscall(SYS_landlock_restrict_self, rules.get(), 0) != 0) return cannot("apply the Landlock rules");
    if (const int result = ::seccomp_load(filter.get()))
        return cannot("load the system-call filter", -result);
    return {};
}

/// Tries two paths that every user may open and that no profile needs.
Result<void> provePathsRefused() {
    for (const char* outside : {"/", "/etc/passwd"}) {
        const UniqueDescriptor opened(::open(outside, O_RDONLY | O_CLOEXEC));
        if (opened || (errno != EACCES && errno != ENOENT))
            return failure(std::string("the sandbox does not hold: ") + outside + " can be opened");
    }
    return {};
}

Result<void> proveSystemCallsRefused(const SandboxProfile& profile) {
    // Not refused, these fail for their arguments, which are bad, with another error, and do nothing.
    constexpr std::array<std::string_view, 4> harmless{"execve", "ptrace", "setns", "unshare"};
    bool proved = false;
    for (const SandboxRefusal& refusal : profile.refusals) {
        if (std::find(harmless.begin(), harmless.end(), refusal.name) == harmless.end()) continue;
        if (::syscall(refusal.systemCall, -1L, -1L, -1L, -1L) != -1 || errno != refusal.error)
            return failure("the sandbox does not hold: " + refusal.name + " is not refused");
        proved = true;
    }
    if (proved) return {};
    return failure("the sandbox cannot be proved: execve is not among the refused system calls");
}

Result<void> confineTo(const SandboxProfile& profile) {
    auto rules = preparePathRules(profile);
    if (!rules) return tl::unexpected(std::move(rules).error());
    auto filter = prepareFilter(profile);
    if (!filter) return tl::unexpected(std::move(filter).error());
    return confine(*rules, *filter);
}

}  // namespace

Result<void> applySandbox(const SandboxProfile& profile) {
    if (auto checked = checkSingleThread(); !checked) return checked;
    if (auto made = makeFolders(profile); !made) return made;
    if (auto confined = confineTo(profile); !confined) return confined;
    if (auto proved = provePathsRefused(); !proved) return proved;
    return proveSystemCallsRefused(profile);
}

bool isConfined() {
    return ::prctl(PR_GET_SECCOMP, 0, 0, 0, 0) == SECCOMP_MODE_FILTER;
}

}  // namespace quorvane::platform
