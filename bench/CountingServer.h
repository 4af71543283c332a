#pragma once

#include "platform/value/Value.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quorvane::bench {

/// An HTTPS server that stands in for collector and upload server. It counts what is posted and forgets it.
/// Everything is thread-safe.
class CountingServer {
  public:
    /// Trusted in the root: its certificate is put there.
    explicit CountingServer(const std::filesystem::path& root);
    ~CountingServer();
    CountingServer(const CountingServer&) = delete;
    CountingServer& operator=(const CountingServer&) = delete;

    /// "https://127.0.0.1:PORT" and the path, which starts with a slash.
    std::string url(std::string_view path) const;

    /// Posted events of the load; the daemon's own do not count.
    std::uint64_t events() const;
    std::uint64_t posts() const;
    /// Waits until so many events have come in all; whether they have.
    bool waitForEvents(std::uint64_t count, std::chrono::seconds limit = std::chrono::seconds(60)) const;

    /// Until it is set back, posts are taken in and not answered.
    void setStalled(bool stalled);

    /// Keeps the next messages, at most so many, with their compression undone.
    void keepMessages(std::size_t most);
    std::vector<Data> keptMessages() const;

  private:
    struct Held;
    std::unique_ptr<Held> _held;
};

}  // namespace quorvane::bench
