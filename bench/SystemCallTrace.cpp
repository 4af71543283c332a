#include "bench/SystemCallTrace.h"

#include <csignal>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace quorvane::bench {

SystemCallTrace::SystemCallTrace(pid_t process)
    : _strace(test::ChildProcess::start({"/usr/bin/strace", "-f", "-c", "-U", "calls,name", "-o",
                                         "/dev/stdout", "-p", std::to_string(process)})) {
    if (!_strace || !_strace->waitForErrors(" attached"))
        throw std::runtime_error("the daemon cannot be traced: " +
                                 (_strace ? _strace->errors() : "strace does not start"));
}

std::map<std::string, std::uint64_t> SystemCallTrace::stop() {
    _strace->signal(SIGINT);
    if (!_strace->wait()) throw std::runtime_error("strace does not end");
    // Lines "CALLS NAME" between two rulers and a sum.
    std::map<std::string, std::uint64_t> calls;
    std::istringstream table(_strace->output());
    for (std::string line; std::getline(table, line);) {
        std::istringstream words(line);
        std::uint64_t count = 0;
        std::string name;
        if (words >> count >> name && name != "total") calls[name] = count;
    }
    return calls;
}

}  // namespace quorvane::bench
