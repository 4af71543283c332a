#include "platform/base/Clock.h"
#include "platform/base/Root.h"
#include "platform/device/DeviceQuery.h"
#include "tools/ctl/doctor/Checks.h"
#include "util/DeviceFacts.h"

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace quorvane::ctl {

namespace {

constexpr std::int64_t kDay = 86'400;
constexpr std::int64_t kProgramLife = kDay * 365 * 20;

/// What is sure without another clock: it is later than when this program was made.
Finding clockFinding() {
    constexpr const char* advice = "set the clock, or have it kept by a time service";
    const std::int64_t now = platform::timeOfDay().seconds;
    const std::string told = fmt::format("it shows {:%Y-%m-%d %H:%M:%S} UTC", fmt::gmtime(now));
    struct stat program {};
    if (::stat("/proc/self/exe", &program) != 0) return good("clock", told);
    if (now < program.st_mtime - kDay) return fault("clock", told + ", before this program was made", advice);
    if (now > program.st_mtime + kProgramLife)
        return fault("clock", told + ", long after this program was made", advice);
    return good("clock", told);
}

Finding identifierFinding() {
    DeviceIdentifier identifier{};
    copyDeviceIdentifier(identifier);
    if (identifier[0] != '\0') return good("device identifier", identifier.data());
    return warning("device identifier", "there is none, or it is longer than 40 characters",
                   fmt::format("set UniqueDeviceID in {}, or make the machine id: systemd-machine-id-setup",
                               platform::rooted(platform::kDeviceFile)));
}

}  // namespace

Findings checkDevice() {
    return {clockFinding(), identifierFinding()};
}

}  // namespace quorvane::ctl
