#include "framework/Keys.h"
#include "platform/base/UniqueDescriptor.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/system/NamedSandbox.h"
#include "tools/ctl/doctor/Checks.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

namespace quorvane::ctl {

namespace {

using platform::SandboxAccess;
using platform::SandboxPath;
using platform::UniqueDescriptor;

constexpr const char* kSubject = "sandbox";

/// Applies the profile in this process, which then ends.
[[noreturn]] void applyAndEnd(const platform::SandboxProfile& profile, int report) {
    const auto applied = platform::applySandbox(profile);
    if (!applied) {
        const std::string& why = applied.error().message;
        [[maybe_unused]] const auto written = ::write(report, why.data(), why.size());
    }
    ::_exit(applied ? 0 : 1);
}

std::string readToEnd(int descriptor) {
    std::string text;
    std::array<char, 512> piece{};
    for (ssize_t count = 0; (count = ::read(descriptor, piece.data(), piece.size())) > 0;)
        text.append(piece.data(), static_cast<std::size_t>(count));
    return text;
}

/// Why the profile cannot be applied; empty when it can.
std::string tryOut(const platform::SandboxProfile& profile) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return std::strerror(errno);
    const UniqueDescriptor told(ends[0]);
    UniqueDescriptor report(ends[1]);
    const pid_t trial = ::fork();
    if (trial < 0) return std::strerror(errno);
    if (trial == 0) applyAndEnd(profile, report.get());
    report = {};
    std::string why = readToEnd(told.get());
    int status = 0;
    if (::waitpid(trial, &status, 0) != trial) return std::strerror(errno);
    if (status != 0 && why.empty()) why = "the trial was ended by the system";
    return why;
}

/// Takes out the folders that the profile would make: a trial leaves nothing behind.
Findings leaveOutAbsent(platform::SandboxProfile& profile) {
    Findings findings;
    std::erase_if(profile.paths, [&](const SandboxPath& entry) {
        std::error_code error;
        if (!entry.product || std::filesystem::exists(entry.path, error)) return false;
        if (entry.access == SandboxAccess::Write || entry.access == SandboxAccess::Socket)
            findings.push_back(warning(entry.path, "the folder is missing; the daemon makes it if it may",
                                       "systemd-tmpfiles --create quorvane.conf"));
        return true;
    });
    return findings;
}

}  // namespace

Findings checkSandbox() {
    auto profile = platform::sandboxProfileNamed(kQuorvaneServiceName);
    if (!profile)
        return {fault(kSubject, profile.error().message,
                      "install the profile again: without it the daemon does not start")};
    Findings findings = leaveOutAbsent(*profile);
    const std::string why = tryOut(*profile);
    findings.push_back(why.empty() ? good(kSubject, "the profile was applied in a trial, and it held")
                                   : fault(kSubject, why,
                                           "the kernel must have Landlock (5.13 or later, `landlock` among "
                                           "its `lsm=` modules) and system-call filters: without them the "
                                           "daemon does not start"));
    return findings;
}

}  // namespace quorvane::ctl
