#pragma once

#include <atomic>
#include <cassert>
#include <cstddef>

namespace quorvane {

/// Counts the bytes that one backend holds, for itself and for all backends together. An object belongs to
/// one thread at a time; different ones may be used at once.
class HeldBytes {
  public:
    static constexpr std::size_t kMaximum = 16u << 20;
    static constexpr std::size_t kMaximumInAll = 256u << 20;

    HeldBytes() = default;
    ~HeldBytes() { clear(); }
    HeldBytes(const HeldBytes&) = delete;
    HeldBytes& operator=(const HeldBytes&) = delete;

    /// False, and nothing is added, when they would go past either maximum.
    bool add(std::size_t bytes) {
        assert(_bytes <= kMaximum && "past it the difference would wrap, and nothing be refused");
        if (bytes > kMaximum - _bytes) return false;
        if (inAll.fetch_add(bytes, std::memory_order_relaxed) + bytes > kMaximumInAll) {
            inAll.fetch_sub(bytes, std::memory_order_relaxed);
            return false;
        }
        _bytes += bytes;
        return true;
    }

    void clear() {
        [[maybe_unused]] const std::size_t before = inAll.fetch_sub(_bytes, std::memory_order_relaxed);
        assert(before >= _bytes && "below zero no backend could hold an event any more");
        _bytes = 0;
    }

    /// What all backends hold.
    static std::size_t heldInAll() { return inAll.load(std::memory_order_relaxed); }

  private:
    static inline std::atomic<std::size_t> inAll = 0;

    std::size_t _bytes = 0;
};

}  // namespace quorvane
