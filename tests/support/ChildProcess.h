#pragma once

#include "platform/base/UniqueDescriptor.h"

#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvane::test {

/// A program started by a test. Its standard output and standard error go into memory, so that it never waits
/// for a reader. What still runs at the end of the object is killed. Not thread-safe.
class ChildProcess {
  public:
    /// Starts the program, args[0] its path; the environment is this process's, changed by the given
    /// variables (a nullopt takes one away). Null when the program cannot be started.
    static std::unique_ptr<ChildProcess> start(
        std::vector<std::string> args,
        const std::map<std::string, std::optional<std::string>>& environment = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return _pid; }

    /// What the program has written so far.
    std::string output() { return _output.text(); }
    std::string errors() { return _errors.text(); }

    /// Waits until the standard output or error holds the text; false when the program ended without it or
    /// time is up.
    bool waitForOutput(std::string_view text, std::chrono::milliseconds limit = std::chrono::seconds(20));
    bool waitForErrors(std::string_view text, std::chrono::milliseconds limit = std::chrono::seconds(20));

    void signal(int number);

    /// Waits for the program's end: its exit status, or minus the number of the signal that ended it. Nothing
    /// when time is up.
    std::optional<int> wait(std::chrono::milliseconds limit = std::chrono::seconds(20));

    /// SIGTERM, then wait().
    std::optional<int> terminate(std::chrono::milliseconds limit = std::chrono::seconds(20));

    bool running();
    /// Whether it has ended though nobody has signalled it or waited for its end.
    bool hasEndedUnasked() { return !running() && !_asked; }

  private:
    struct Stream {
        platform::UniqueDescriptor file;
        std::string held;  ///< What text() has read so far.

        const std::string& text();
    };
    ChildProcess(Stream output, Stream errors) : _output(std::move(output)), _errors(std::move(errors)) {}
    bool waitFor(Stream& stream, std::string_view text, std::chrono::milliseconds limit);

    pid_t _pid = -1;
    bool _asked = false;  ///< By a signal, or by waiting.
    std::optional<int> _status;
    Stream _output;
    Stream _errors;
};

/// Runs a program to its end.
struct ProgramResult {
    int status = -1;
    std::string output;
    std::string errors;
};
ProgramResult runProgram(const std::vector<std::string>& args,
                         const std::map<std::string, std::optional<std::string>>& environment = {},
                         std::chrono::milliseconds limit = std::chrono::seconds(60));

}  // namespace quorvane::test
