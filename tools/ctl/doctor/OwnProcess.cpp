#include "tools/ctl/doctor/OwnProcess.h"

#include "platform/base/DescriptorIO.h"
#include "platform/base/UniqueDescriptor.h"
#include "platform/value/Bytes.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace quorvane::ctl {

namespace {

using platform::UniqueDescriptor;

[[noreturn]] void runAndEnd(const std::function<std::string()>& function, int answer) {
    bool told = false;
    try {
        const std::string text = function();
        told = platform::writeAll(answer, platform::bytesOf(text)) == text.size();
    } catch (...) {
        // What was thrown belongs to nobody here.
    }
    ::_exit(told ? EXIT_SUCCESS : EXIT_FAILURE);
}

std::string readToEnd(int descriptor) {
    std::string text;
    std::array<char, 4096> piece{};
    for (ssize_t count = 0; (count = ::read(descriptor, piece.data(), piece.size())) > 0;)
        text.append(piece.data(), static_cast<std::size_t>(count));
    return text;
}

}  // namespace

platform::Result<std::string> inOwnProcess(const std::function<std::string()>& function) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return platform::failure(std::strerror(errno));
    const UniqueDescriptor told(ends[0]);
    UniqueDescriptor answer(ends[1]);
    const pid_t process = ::fork();
    if (process < 0) return platform::failure(std::strerror(errno));
    if (process == 0) runAndEnd(function, answer.get());
    answer = {};
    std::string text = readToEnd(told.get());
    int status = 0;
    if (::waitpid(process, &status, 0) != process) return platform::failure(std::strerror(errno));
    if (status != 0) return platform::failure("the process that tried it did not come to its end");
    return text;
}

}  // namespace quorvane::ctl
