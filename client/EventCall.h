#pragma once

#include "client/EventView.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace quorvane::client {

/// An event as the bytes of a D-Bus call of SendMessageWithDictionary. The bus library would take three times
/// as long, since it checks at every step what is known here.
class EventCall {
  public:
    /// The serial of calls that are not answered: no reply names it, so all have the same.
    static constexpr std::uint32_t kUnanswered = UINT32_MAX;

    /// Writes the call. Negative errno when the event cannot be sent: -E2BIG when it is nested too deeply or
    /// too large, -EINVAL for a text that the bus cannot carry.
    int write(const EventView& event, std::uint32_t serial = kUnanswered);
    /// What was written last.
    std::span<const std::uint8_t> bytes() const { return {_buffer.data(), _size}; }
    /// Gives memory back that a large event took.
    void trim();

  private:
    std::vector<std::uint8_t> _buffer;
    std::size_t _size = 0;
};

}  // namespace quorvane::client
