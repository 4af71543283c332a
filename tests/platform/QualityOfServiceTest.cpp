#include "platform/system/QualityOfService.h"

#include <linux/ioprio.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <thread>

namespace quorvane::platform {
namespace {

using Priorities = std::pair<int, long>;  // Of the processor, which is the nice value, and of I/O.

Priorities ofThisThread() {
    const auto thread = static_cast<id_t>(::syscall(SYS_gettid));
    return {::getpriority(PRIO_PROCESS, thread), ::syscall(SYS_ioprio_get, IOPRIO_WHO_PROCESS, thread)};
}

TEST(QualityOfServiceTest, UtilityIsTheThreadsOwnAndInheritedAndWhoIsNicerStaysSo) {
    const Priorities before = ofThisThread();
    int nicer = 0;
    std::thread([&] {
        ::setpriority(PRIO_PROCESS, static_cast<id_t>(::syscall(SYS_gettid)), 15);
        setQualityOfServiceUtility();
        nicer = ofThisThread().first;
    }).join();
    EXPECT_EQ(nicer, 15);

    if (before.first > 5) GTEST_SKIP() << "nice " << before.first << " cannot be taken back";
    Priorities own, inherited;
    std::thread([&] {
        setQualityOfServiceUtility();
        own = ofThisThread();
        std::thread([&] { inherited = ofThisThread(); }).join();
    }).join();
    EXPECT_EQ(own, (Priorities{5, IOPRIO_PRIO_VALUE(IOPRIO_CLASS_BE, 6)}));
    EXPECT_EQ(inherited, own);
    EXPECT_EQ(ofThisThread(), before);
}

}  // namespace
}  // namespace quorvane::platform
