#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace quorvane {

/// The memory that uploads may take all together. Thread-safe.
class UploadRoom {
  public:
    /// What one upload takes of the room, until its end.
    class Share {
      public:
        Share(UploadRoom& room, std::size_t bytes) : _room(&room), _bytes(bytes) {}
        Share(Share&& other) noexcept : _room(std::exchange(other._room, nullptr)), _bytes(other._bytes) {}
        Share& operator=(Share&&) = delete;
        ~Share() {
            if (_room != nullptr) _room->leave(_bytes);
        }

        /// Gives back what is beyond so many bytes.
        void shrinkTo(std::size_t bytes);

      private:
        UploadRoom* _room;
        std::size_t _bytes;
    };

    explicit UploadRoom(std::size_t bytes) : _bytes(bytes) {}

    /// Waits until so many bytes are free, one caller after another in their order; who wants more than the
    /// whole room gets it when nobody else is in. Nothing when it takes longer than the caller's patience.
    std::optional<Share> enter(std::size_t bytes, std::chrono::milliseconds patience);

  private:
    bool fits(std::size_t bytes) const;
    void leave(std::size_t bytes);

    const std::size_t _bytes;
    std::mutex _mutex;
    std::condition_variable _changed;
    // Guarded by the mutex.
    std::size_t _taken = 0;
    std::uint64_t _lastTicket = 0;
    std::deque<std::uint64_t> _waiting;
};

}  // namespace quorvane
