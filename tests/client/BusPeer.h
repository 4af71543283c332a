#pragma once

#include "platform/base/UniqueDescriptor.h"

#include <systemd/sd-bus.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace quorvane::test {

/// A new folder for one test.
std::filesystem::path makeFolder();

/// A listening Unix socket.
platform::UniqueDescriptor listenAt(const std::string& path);

/// The other end of a client's connection, as a test wants it to be: a D-Bus server on a Unix socket in a
/// folder of its own. It serves one connection after another on one thread.
class BusPeer {
  public:
    /// Takes one method call at the daemon's object path; returns as a message handler of sd-bus does.
    using Handler = std::function<int(sd_bus_message*)>;

    explicit BusPeer(Handler handler);
    ~BusPeer();

    const std::string& path() const { return _path; }
    const std::filesystem::path& folder() const { return _folder; }

    /// Runs the function with the connection's bus on the peer's thread, and waits until it has.
    void run(const std::function<void(sd_bus*)>& function);
    /// While paused, the peer neither reads nor writes.
    void setPaused(bool paused) { _paused = paused; }
    /// Ends the current connection, also while paused.
    void disconnect() { _disconnects = true; }

  private:
    void serve();
    void serveConnection(platform::UniqueDescriptor socket);
    bool heed(sd_bus* bus);

    const std::filesystem::path _folder;
    const std::string _path;
    const Handler _handler;
    const platform::UniqueDescriptor _listener;

    std::mutex _mutex;
    std::vector<std::function<void(sd_bus*)>> _functions;
    std::atomic<bool> _paused = false;
    std::atomic<bool> _disconnects = false;
    std::atomic<bool> _stops = false;
    std::thread _thread;
};

}  // namespace quorvane::test
