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
        std::size_t bytes = 0;  ///< Size of the event that it holds; counts as waiting until it has run.
    };

    /// The queue writes to the event descriptor when it falls below its bound.
    static std::shared_ptr<CallbackQueue> create(Executor executor,
                                                 std::shared_ptr<platform::UniqueDescriptor> wake);
    ~CallbackQueue();
    CallbackQueue(const CallbackQueue&) = delete;
    CallbackQueue& operator=(const CallbackQueue&) = delete;

    void deliver(std::vector<Callback> callbacks);

    /// Drops callbacks that have not begun and waits for the one that runs, unless it is the caller.
    void close();

    /// Bytes of events that wait for the executor.
    std::size_t waitingBytes() const;

    /// At this many waiting bytes the connection stops reading.
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
