#pragma once

#include "tests/support/ChildProcess.h"

#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <string>

namespace quorvane::bench {

/// quorvane-bench-echo as a process of its own, with its socket in a folder of its own.
class EchoServer {
  public:
    /// Throws when it does not start.
    EchoServer();
    ~EchoServer();
    EchoServer(const EchoServer&) = delete;
    EchoServer& operator=(const EchoServer&) = delete;

    pid_t pid() const { return _program->pid(); }
    std::string socketPath() const { return (_folder / "socket").string(); }

  private:
    std::filesystem::path _folder;
    std::unique_ptr<test::ChildProcess> _program;
};

}  // namespace quorvane::bench
