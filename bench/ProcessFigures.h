#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>

namespace quorvane::bench {

using Nanoseconds = std::chrono::duration<double, std::nano>;

inline double inMicroseconds(Nanoseconds time) {
    return time.count() / 1000;
}

/// User and system time that all threads of the process have used, ended ones included, to the nanosecond.
Nanoseconds cpuTime(pid_t process);

/// Memory of the process's own that no file stands behind ("RssAnon" of proc(5)), in bytes.
std::uint64_t anonymousBytes(pid_t process);

/// How often the process's living threads have left a CPU, of their own accord or not.
std::uint64_t contextSwitches(pid_t process);

/// CPU time that a process used from here on.
class CpuMeter {
  public:
    explicit CpuMeter(pid_t process) : _process(process), _start(cpuTime(process)) {}
    Nanoseconds used() const { return cpuTime(_process) - _start; }

  private:
    pid_t _process;
    Nanoseconds _start;
};

}  // namespace quorvane::bench
