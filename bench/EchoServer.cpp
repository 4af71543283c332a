#include "bench/EchoServer.h"

#include "bench/Folders.h"

#include <stdexcept>

namespace quorvane::bench {

EchoServer::EchoServer()
    : _folder(makeFolder()),
      _program(test::ChildProcess::start({programPath("bench/quorvane-bench-echo"), socketPath()})) {
    if (!_program || !_program->waitForOutput("ready"))
        throw std::runtime_error("quorvane-bench-echo does not start");
}

EchoServer::~EchoServer() {
    _program.reset();
    std::error_code ignored;
    std::filesystem::remove_all(_folder, ignored);
}

}  // namespace quorvane::bench
