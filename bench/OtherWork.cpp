#include "bench/OtherWork.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <utility>

namespace quorvane::bench {

namespace {

/// What all CPUs of the machine have worked since it was started.
Nanoseconds machineTime() {
    // "cpu USER NICE SYSTEM IDLE IOWAIT IRQ SOFTIRQ STEAL ...", in clock ticks; guests are among the users.
    std::ifstream file("/proc/stat");
    std::string name;
    file >> name;
    double ticks = 0;
    for (int column = 0; column < 8; ++column) {
        double time = 0;
        file >> time;
        if (column != 3 && column != 4) ticks += time;
    }
    return std::chrono::duration<double>(ticks / static_cast<double>(::sysconf(_SC_CLK_TCK)));
}

}  // namespace

OtherWork::OtherWork(std::vector<pid_t> ours)
    : _ours(std::move(ours)), _start(std::chrono::steady_clock::now()), _atStart(othersTime()) {}

Nanoseconds OtherWork::othersTime() const {
    Nanoseconds time = machineTime() - cpuTime(::getpid());
    for (const pid_t process : _ours) time -= cpuTime(process);
    return time;
}

double OtherWork::share() const {
    const Nanoseconds passed = std::chrono::steady_clock::now() - _start;
    const Nanoseconds all = passed * static_cast<double>(::sysconf(_SC_NPROCESSORS_ONLN));
    return std::clamp((othersTime() - _atStart) / all, 0.0, 1.0);
}

}  // namespace quorvane::bench
