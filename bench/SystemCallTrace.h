#pragma once

#include "tests/support/ChildProcess.h"

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace quorvane::bench {

/// Counts the system calls of all threads of a process, with strace(1), which slows the process down a lot:
/// it then always finds its input waiting, so that the counts hardly depend on what else the machine does.
class SystemCallTrace {
  public:
    /// Throws when the process cannot be traced.
    explicit SystemCallTrace(pid_t process);

    /// Ends the count: how many calls there were, by name.
    std::map<std::string, std::uint64_t> stop();

  private:
    std::unique_ptr<test::ChildProcess> _strace;
};

}  // namespace quorvane::bench
