#pragma once

#include "platform/base/UniqueDescriptor.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <string>

namespace quorvane::test {

/// Runs the function, which returns a text, in a forked process and answers the text, followed by how the
/// process died unless it ended well.
template <typename Function>
std::string inChild(Function&& function) {
    int ends[2];
    if (::pipe(ends) != 0) return "no pipe";
    const platform::UniqueDescriptor in(ends[0]);
    platform::UniqueDescriptor out(ends[1]);
    const pid_t child = ::fork();
    if (child == 0) {
        const std::string text = function();
        const auto written = ::write(out.get(), text.data(), text.size());
        ::_exit(written == static_cast<ssize_t>(text.size()) ? 0 : 1);
    }
    out.reset();
    std::string text;
    char buffer[512];
    for (ssize_t got; (got = ::read(in.get(), buffer, sizeof buffer)) > 0;)
        text.append(buffer, static_cast<std::size_t>(got));
    int status = 0;
    ::waitpid(child, &status, 0);
    return status == 0 ? text : text + "died with status " + std::to_string(status);
}

}  // namespace quorvane::test
