#pragma once

#include "platform/base/ThreadAnnotations.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>

namespace quorvane::platform {

/// Memory that several holders (servers, say) share: who finds too little of it waits, behind those who wait
/// for the same holder and nobody else. Thread-safe.
class MemoryBudget {
  private:
    struct Holder;
    using Entry = std::map<std::string, Holder>::iterator;

  public:
    struct Limits {
        std::size_t each;   ///< Bytes for one holder; one that has nothing may go beyond with a single piece.
        std::size_t inAll;  ///< Bytes for all together; a larger piece gets in when nobody else is in.
        std::size_t share = 0;     ///< Bytes that each gets, however much the others have.
        std::size_t holders = 64;  ///< So many at once have anything; all further ones are refused.
    };

    /// How long to wait for room.
    struct Patience {
        std::chrono::milliseconds standstill;  ///< While nothing of the same holder is given back.
        std::chrono::milliseconds inAll;
    };

    /// What was taken, until its end. It must not outlive the budget.
    class Reservation {
      public:
        Reservation(MemoryBudget& budget, Entry holder, std::size_t bytes)
            : _budget(&budget), _holder(holder), _bytes(bytes) {}
        Reservation(Reservation&& other) noexcept
            : _budget(std::exchange(other._budget, nullptr)), _holder(other._holder), _bytes(other._bytes) {}
        Reservation& operator=(Reservation&&) = delete;
        ~Reservation() {
            if (_budget != nullptr) _budget->release(_holder, _bytes, 1);
        }

        /// Gives back what is beyond so many bytes.
        void shrinkTo(std::size_t bytes);

      private:
        MemoryBudget* _budget;
        Entry _holder;
        std::size_t _bytes;
    };

    explicit MemoryBudget(Limits limits) : _limits(limits) {}
    MemoryBudget(const MemoryBudget&) = delete;
    MemoryBudget& operator=(const MemoryBudget&) = delete;

    /// Waits until there is room for so many bytes. Nothing when the patience ends first, so at once where
    /// the holder has been at a standstill for that long already, and after endWaits().
    std::optional<Reservation> acquire(const std::string& holder, std::size_t bytes, Patience patience);

    void setLimits(Limits limits);

    /// From now on nobody waits: what finds no room is refused.
    void endWaits();

  private:
    using Clock = std::chrono::steady_clock;
    struct Waiter {
        std::size_t bytes;
        std::condition_variable_any mayEnter;
    };
    struct Holder {
        std::size_t taken = 0;
        std::size_t reservations = 0;
        Clock::time_point lastGivenBack;
        std::deque<Waiter*> line;
    };

    bool waitForTurn(Holder& holder, Waiter& waiter, Patience patience) REQUIRES(_mutex);
    bool hasTurn(const Holder& holder, const Waiter& waiter) const REQUIRES(_mutex);
    bool fits(const Holder& holder, std::size_t bytes) const REQUIRES(_mutex);
    void wakeNext() REQUIRES(_mutex);
    void forgetIdle(Entry holder) REQUIRES(_mutex);
    void release(Entry holder, std::size_t bytes, std::size_t reservations);

    Mutex _mutex;
    Limits _limits GUARDED_BY(_mutex);
    std::map<std::string, Holder> _holders GUARDED_BY(_mutex);  ///< Those who have something or wait.
    std::size_t _taken GUARDED_BY(_mutex) = 0;
    bool _wasLarge GUARDED_BY(_mutex) = false;  ///< Much has been taken since nothing was.
    bool _waitsEnded GUARDED_BY(_mutex) = false;
};

}  // namespace quorvane::platform
