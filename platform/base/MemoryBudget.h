#pragma once

#include "platform/base/ThreadAnnotations.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <utility>

namespace quorvane::platform {

/// Memory that several may take all together: who finds too little of it waits. Thread-safe.
class MemoryBudget {
  public:
    /// What one of them takes, until its end.
    class Reservation {
      public:
        Reservation(MemoryBudget& budget, std::size_t bytes) : _budget(&budget), _bytes(bytes) {}
        Reservation(Reservation&& other) noexcept
            : _budget(std::exchange(other._budget, nullptr)), _bytes(other._bytes) {}
        Reservation& operator=(Reservation&&) = delete;
        ~Reservation() {
            if (_budget != nullptr) _budget->release(_bytes);
        }

        /// Gives back what is beyond so many bytes.
        void shrinkTo(std::size_t bytes);

      private:
        MemoryBudget* _budget;
        std::size_t _bytes;
    };

    explicit MemoryBudget(std::size_t bytes) : _bytes(bytes) {}

    /// Waits until so many bytes are free, one caller after another in their order; who wants more than the
    /// whole room gets it when nobody else is in. Nothing when it takes longer than the caller's patience, if
    /// that has an end.
    std::optional<Reservation> acquire(std::size_t bytes,
                                       std::optional<std::chrono::milliseconds> patience = {});

    void setBytes(std::size_t bytes);

  private:
    bool isTurn(std::uint64_t ticket, std::size_t bytes) const REQUIRES(_mutex);
    void release(std::size_t bytes);

    Mutex _mutex;
    std::condition_variable_any _changed;
    std::size_t _bytes GUARDED_BY(_mutex);
    std::size_t _taken GUARDED_BY(_mutex) = 0;
    bool _wasLarge GUARDED_BY(_mutex) = false;  ///< Much has been taken since nothing was.
    std::uint64_t _lastTicket GUARDED_BY(_mutex) = 0;
    std::deque<std::uint64_t> _waiting GUARDED_BY(_mutex);
};

}  // namespace quorvane::platform
