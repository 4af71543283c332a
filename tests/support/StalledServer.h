#pragma once

#include "tests/support/HttpsServer.h"

#include <filesystem>
#include <future>

namespace quorvane::test {

/// A server that holds every request until it is opened.
class StalledServer : public HttpsServer {
  public:
    explicit StalledServer(const std::filesystem::path& root) : HttpsServer(root) {
        setHandler([opened = _gate.get_future().share()](const ServerRequest&) {
            opened.wait();
            return ServerAnswer();
        });
    }
    void open() { _gate.set_value(); }

  private:
    std::promise<void> _gate;
};

}  // namespace quorvane::test
