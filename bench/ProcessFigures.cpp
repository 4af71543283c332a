#include "bench/ProcessFigures.h"

#include <time.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>

#include <fmt/format.h>

namespace quorvane::bench {

namespace {

/// The number behind "Name:" in a file like /proc/PID/status; 0 when there is none.
std::uint64_t field(const std::filesystem::path& file, std::string_view name) {
    std::ifstream status(file);
    for (std::string word; status >> word;) {
        std::uint64_t number = 0;
        if (word.size() == name.size() + 1 && word.starts_with(name) && status >> number) return number;
    }
    return 0;
}

std::filesystem::directory_iterator threadsOf(pid_t process) {
    return std::filesystem::directory_iterator(fmt::format("/proc/{}/task", process));
}

}  // namespace

Nanoseconds cpuTime(pid_t process) {
    clockid_t clock;
    timespec time{};
    if (::clock_getcpuclockid(process, &clock) != 0 || ::clock_gettime(clock, &time) != 0)
        throw std::runtime_error(fmt::format("process {} has no CPU clock; it has ended", process));
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

std::uint64_t anonymousBytes(pid_t process) {
    return field(fmt::format("/proc/{}/status", process), "RssAnon") * 1024;
}

std::uint64_t contextSwitches(pid_t process) {
    std::uint64_t count = 0;
    for (const auto& thread : threadsOf(process))
        for (const char* name : {"voluntary_ctxt_switches", "nonvoluntary_ctxt_switches"})
            count += field(thread.path() / "status", name);
    return count;
}

}  // namespace quorvane::bench
