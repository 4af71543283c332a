#pragma once

#include "platform/base/ThreadAnnotations.h"
#include "platform/base/UniqueDescriptor.h"

#include <quorvane/Client.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

namespace quorvane::client {

/// Runs the user's callbacks on the user's executor, or on a thread of its own that starts with the first.
/// Thread-safe.
class CallbackQueue : public std::enable_shared_from_this<CallbackQueue> {
  public:
    struct Callback {
        std::function<void()> function;
        std::size_t bytes = 0;  ///< What it holds of the user's data; counted until it has run.
    };

    /// The event descriptor is written to when what waits falls below the bound.
    static std::shared_ptr<CallbackQueue> create(Executor executor,
                                                 std::shared_ptr<platform::UniqueDescriptor> wake);
    ~CallbackQueue();
    CallbackQueue(const CallbackQueue&) = delete;
    CallbackQueue& operator=(const CallbackQueue&) = delete;

    void deliver(std::vector<Callback> callbacks);

    /// Drops what has not begun and waits for what runs, unless a callback is the caller.
    void close();

    /// What waits for the executor, in bytes.
    std::size_t waitingBytes() const;

    /// From this many waiting bytes on nothing more should come.
    static constexpr std::size_t kBoundBytes = 4u << 20;

  private:
    CallbackQueue(Executor executor, std::shared_ptr<platform::UniqueDescriptor> wake);
    bool startThread();
    void runWaiting();
    void run(Callback callback);

    const Executor _executor;
    const std::shared_ptr<platform::UniqueDescriptor> _wake;

    mutable platform::Mutex _mutex;
    std::condition_variable_any _changed;
    std::deque<Callback> _waiting GUARDED_BY(_mutex);  ///< For the own thread only.
    std::size_t _waitingBytes GUARDED_BY(_mutex) = 0;
    std::size_t _running GUARDED_BY(_mutex) = 0;
    bool _hasThread GUARDED_BY(_mutex) = false;
    bool _closed GUARDED_BY(_mutex) = false;
};

}  // namespace quorvane::client
