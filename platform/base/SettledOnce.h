#pragma once

#include "platform/base/ThreadAnnotations.h"

#include <atomic>

namespace quorvane::platform {

/// Goes up when everything is to be settled anew.
inline std::atomic<unsigned> settlingRound{0};

/// What a process works out once, on first use, and keeps. It stays when main has ended, since threads may
/// outlast it. Thread-safe.
template <typename T>
class SettledOnce {
  public:
    explicit SettledOnce(T (*settle)()) : _settle(settle) {}
    SettledOnce(const SettledOnce&) = delete;
    SettledOnce& operator=(const SettledOnce&) = delete;

    T& value() {
        if (T* settled = valueOfThisRound()) return *settled;
        const MutexLock lock(_mutex);
        if (T* settled = valueOfThisRound()) return *settled;
        const unsigned round = settlingRound.load();
        return keep(new Settled{round, _settle()});
    }

    /// Puts another value in force. For tests, while no other thread uses the old one.
    void replaceForTest(T value) {
        const MutexLock lock(_mutex);
        keep(new Settled{settlingRound.load(), value});
    }

  private:
    struct Settled {
        unsigned round;
        T value;
    };

    T* valueOfThisRound() const {
        Settled* settled = _settled.load(std::memory_order_acquire);
        return settled != nullptr && settled->round == settlingRound.load(std::memory_order_relaxed)
                   ? &settled->value
                   : nullptr;
    }

    T& keep(Settled* settled) REQUIRES(_mutex) {
        delete _settled.exchange(settled, std::memory_order_acq_rel);
        return settled->value;
    }

    T (*const _settle)();
    Mutex _mutex;
    std::atomic<Settled*> _settled{nullptr};
};

/// Has every SettledOnce settle anew at its next use, as a new process would. For tests, while no other
/// thread uses one.
inline void settleAnewForTest() {
    ++settlingRound;
}

}  // namespace quorvane::platform
