#include "framework/Keys.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/system/NamedSandbox.h"
#include "tools/ctl/doctor/Checks.h"
#include "tools/ctl/doctor/OwnProcess.h"

#include <filesystem>
#include <string>
#include <system_error>

namespace quorvane::ctl {

namespace {

using platform::SandboxAccess;
using platform::SandboxPath;

constexpr const char* kSubject = "sandbox";

/// Why the profile cannot be applied; empty when it can.
std::string tryOut(const platform::SandboxProfile& profile) {
    const auto why = inOwnProcess([&] {
        const auto applied = platform::applySandbox(profile);
        return applied ? std::string() : applied.error().message;
    });
    return why ? *why : why.error().message;
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
