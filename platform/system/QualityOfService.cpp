#include "platform/system/QualityOfService.h"

#include "platform/base/Log.h"

#include <linux/ioprio.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace quorvane::platform {

namespace {

constexpr int kNice = 5;
constexpr int kIoPriority = IOPRIO_PRIO_VALUE(IOPRIO_CLASS_BE, 6);

}  // namespace

void setQualityOfServiceUtility() {
    // On Linux both are a thread's own, named by its thread ID.
    const auto thread = static_cast<int>(::syscall(SYS_gettid));
    // Started nicer than that, it stays so.
    if (::getpriority(PRIO_PROCESS, static_cast<id_t>(thread)) < kNice &&
        ::setpriority(PRIO_PROCESS, static_cast<id_t>(thread), kNice) != 0)
        logWarning("setQualityOfServiceUtility: nice {} was refused ({})", kNice, std::strerror(errno));
    // A service manager that has set it may refuse to let it be set again.
    if (::syscall(SYS_ioprio_get, IOPRIO_WHO_PROCESS, thread) != kIoPriority &&
        ::syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, thread, kIoPriority) != 0)
        logWarning("setQualityOfServiceUtility: I/O priority {} was refused ({})",
                   IOPRIO_PRIO_DATA(kIoPriority), std::strerror(errno));
}

}  // namespace quorvane::platform
