#pragma once

#include "platform/base/ThreadAnnotations.h"

#include <memory>
#include <utility>

namespace quorvane::platform {

/// A value that one thread, the owner, replaces as a whole and that every thread may read: readers hold an
/// immutable snapshot. The owner reads without a lock.
template <typename T>
class Snapshot {
  public:
    using Pointer = std::shared_ptr<const T>;

    /// Owner only. Null for none.
    void publish(Pointer value) {
        // The old value ends outside the lock.
        const MutexLock lock(_mutex);
        _value.swap(value);
    }

    /// Any thread.
    Pointer load() const {
        const MutexLock lock(_mutex);
        return _value;
    }

    /// Owner only; valid until it publishes again. Nobody else writes, so reading needs no lock.
    const Pointer& own() const QUORVANE_TSA(no_thread_safety_analysis) { return _value; }

  private:
    mutable Mutex _mutex;
    Pointer _value GUARDED_BY(_mutex);
};

}  // namespace quorvane::platform
