#include "tests/support/ChildProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>

#include <condition_variable>
#include <mutex>

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

pid_t spawn(std::vector<std::string> args, const Environment& changes, int output, int errors) {
    auto environment = merged(changes);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errors, STDERR_FILENO);
    pid_t pid = -1;
    const int error = posix_spawn(&pid, args.front().c_str(), &actions, nullptr, pointers(args).data(),
                                  pointers(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    return error == 0 ? pid : -1;
}

}  // namespace

/// One stream of the program, read by a thread of its own until its end.
class ChildProcess::Pipe {
  public:
    Pipe() {
        if (::pipe2(_ends, O_CLOEXEC) != 0) _ends[0] = _ends[1] = -1;
    }

    ~Pipe() {
        closeWriteEnd();
        if (_reader.joinable()) _reader.join();
        if (_ends[0] >= 0) ::close(_ends[0]);
    }

    int writeEnd() const { return _ends[1]; }

    void startReading() {
        closeWriteEnd();
        _reader = std::thread([this] { readAll(); });
    }

    std::string text() const {
        const std::lock_guard lock(_mutex);
        return _text;
    }

    bool waitFor(std::string_view text, std::chrono::milliseconds limit) {
        std::unique_lock lock(_mutex);
        const auto holds = [&] { return _text.find(text) != std::string::npos; };
        _changed.wait_for(lock, limit, [&] { return _ended || holds(); });
        return holds();
    }

    void waitForEnd(std::chrono::milliseconds limit) {
        std::unique_lock lock(_mutex);
        _changed.wait_for(lock, limit, [&] { return _ended; });
    }

  private:
    void closeWriteEnd() {
        if (_ends[1] >= 0) ::close(_ends[1]);
        _ends[1] = -1;
    }

    void readAll() {
        char buffer[4096];
        ssize_t count = 0;
        while ((count = ::read(_ends[0], buffer, sizeof buffer)) > 0 || (count < 0 && errno == EINTR)) {
            if (count < 0) continue;
            const std::lock_guard lock(_mutex);
            _text.append(buffer, static_cast<std::size_t>(count));
            _changed.notify_all();
        }
        const std::lock_guard lock(_mutex);
        _ended = true;
        _changed.notify_all();
    }

    int _ends[2];
    mutable std::mutex _mutex;
    std::condition_variable _changed;
    std::string _text;
    bool _ended = false;
    std::thread _reader;
};

std::unique_ptr<ChildProcess> ChildProcess::start(const std::vector<std::string>& args,
                                                  const Environment& environment) {
    auto output = std::make_unique<Pipe>();
    auto errors = std::make_unique<Pipe>();
    const pid_t pid = spawn(args, environment, output->writeEnd(), errors->writeEnd());
    if (pid < 0) return nullptr;
    output->startReading();
    errors->startReading();
    return std::unique_ptr<ChildProcess>(new ChildProcess(pid, std::move(output), std::move(errors)));
}

ChildProcess::ChildProcess(pid_t pid, std::unique_ptr<Pipe> output, std::unique_ptr<Pipe> errors)
    : _pid(pid), _output(std::move(output)), _errors(std::move(errors)) {}

ChildProcess::~ChildProcess() {
    if (running()) {
        ::kill(_pid, SIGKILL);
        wait();
    }
}

std::string ChildProcess::output() const {
    return _output->text();
}

std::string ChildProcess::errors() const {
    return _errors->text();
}

bool ChildProcess::waitForOutput(std::string_view text, std::chrono::milliseconds limit) {
    return _output->waitFor(text, limit);
}

bool ChildProcess::waitForErrors(std::string_view text, std::chrono::milliseconds limit) {
    return _errors->waitFor(text, limit);
}

void ChildProcess::signal(int number) {
    if (running()) ::kill(_pid, number);
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (running()) {
        if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    _output->waitForEnd(limit);
    _errors->waitForEnd(limit);
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
