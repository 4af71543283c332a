#include "tests/support/ChildProcess.h"

#include "tests/support/Within.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>

namespace quorvane::test {

namespace {

using Environment = std::map<std::string, std::optional<std::string>>;

std::vector<std::string> merged(const Environment& changes) {
    std::vector<std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text = *entry;
        if (!changes.contains(std::string(text.substr(0, text.find('='))))) result.emplace_back(text);
    }
    for (const auto& [name, value] : changes)
        if (value) result.push_back(name + "=" + *value);
    return result;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (auto& text : texts) result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

platform::UniqueDescriptor memoryFile() {
    return platform::UniqueDescriptor(::memfd_create("output", MFD_CLOEXEC));
}

}  // namespace

const std::string& ChildProcess::Stream::text() {
    char buffer[4096];
    ssize_t count = 0;
    while ((count = ::pread(file.get(), buffer, sizeof buffer, static_cast<off_t>(held.size()))) > 0)
        held.append(buffer, static_cast<std::size_t>(count));
    return held;
}

std::unique_ptr<ChildProcess> ChildProcess::start(std::vector<std::string> args,
                                                  const Environment& environment) {
    std::unique_ptr<ChildProcess> child(new ChildProcess({memoryFile(), ""}, {memoryFile(), ""}));
    auto variables = merged(environment);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, child->_output.file.get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, child->_errors.file.get(), STDERR_FILENO);
    const int error = posix_spawn(&child->_pid, args.front().c_str(), &actions, nullptr,
                                  pointers(args).data(), pointers(variables).data());
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) child->_status = -1;
    return error == 0 ? std::move(child) : nullptr;
}

ChildProcess::~ChildProcess() {
    signal(SIGKILL);
    wait();
}

bool ChildProcess::waitFor(Stream& stream, std::string_view text, std::chrono::milliseconds limit) {
    bool found = false;
    within(limit, [&] {
        const bool ended = !running();
        found = stream.text().find(text) != std::string::npos;
        return found || ended;
    });
    return found;
}

bool ChildProcess::waitForOutput(std::string_view text, std::chrono::milliseconds limit) {
    return waitFor(_output, text, limit);
}

bool ChildProcess::waitForErrors(std::string_view text, std::chrono::milliseconds limit) {
    return waitFor(_errors, text, limit);
}

void ChildProcess::signal(int number) {
    if (!running()) return;
    _asked = true;
    ::kill(_pid, number);
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds limit) {
    _asked = true;
    within(limit, [this] { return !running(); });
    return _status;
}

std::optional<int> ChildProcess::terminate(std::chrono::milliseconds limit) {
    signal(SIGTERM);
    return wait(limit);
}

bool ChildProcess::running() {
    int status = 0;
    if (!_status && ::waitpid(_pid, &status, WNOHANG) == _pid)
        _status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return !_status;
}

ProgramResult runProgram(const std::vector<std::string>& args, const Environment& environment,
                         std::chrono::milliseconds limit) {
    const auto program = ChildProcess::start(args, environment);
    if (!program) return {-1, "", "cannot start " + args.front()};
    const auto status = program->wait(limit);
    return {status.value_or(-1), program->output(), program->errors()};
}

}  // namespace quorvane::test
