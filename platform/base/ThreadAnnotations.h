#pragma once

/// Which lock guards a field or must be held by a function's caller, in the form that clang's thread-safety
/// analysis checks (https://clang.llvm.org/docs/ThreadSafetyAnalysis.html); nothing under other compilers.

#include <mutex>

#if defined(__clang__)
#define QUORVANE_TSA(x) __attribute__((x))
#else
#define QUORVANE_TSA(x)
#endif

#define GUARDED_BY(lock) QUORVANE_TSA(guarded_by(lock))
#define REQUIRES(lock) QUORVANE_TSA(requires_capability(lock))

namespace quorvane::platform {

/// std::mutex and its scoped lock with the annotations; libstdc++ has none of its own.
class QUORVANE_TSA(capability("mutex")) Mutex {
  public:
    void lock() QUORVANE_TSA(acquire_capability()) { _mutex.lock(); }
    void unlock() QUORVANE_TSA(release_capability()) { _mutex.unlock(); }

  private:
    std::mutex _mutex;
};

class QUORVANE_TSA(scoped_lockable) MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) QUORVANE_TSA(acquire_capability(mutex)) : _mutex(mutex) {
        _mutex.lock();
    }
    ~MutexLock() QUORVANE_TSA(release_capability()) { _mutex.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex& _mutex;
};

}  // namespace quorvane::platform
