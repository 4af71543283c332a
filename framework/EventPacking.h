#pragma once

#include "platform/value/Value.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace quorvane {

/// Events as com.velmora.quorvaned.EventBatch carries them, one behind the other; docs/DBUS.md has the
/// layout. Any event that can be sent by a call of its own can be packed, and no other.

struct PackedEvent {
    std::uint16_t category = 0;
    std::uint16_t type = 0;
    std::uint32_t flag = 0;
    std::chrono::microseconds age{};  ///< Since the event was reported.
    std::optional<Dictionary> payload;
};

/// Bytes that an event with the payload, which may be null, takes; nothing when D-Bus cannot carry it: a text
/// that is none of isBusText(), values nested too deeply.
std::optional<std::size_t> packedSize(const Dictionary* payload);

/// Writes an event of packedSize() bytes.
///   size  what packedSize() gave for the payload
void packEvent(std::uint8_t* to, std::size_t size, std::uint16_t category, std::uint16_t type,
               std::uint32_t flag, std::uint64_t age, const Dictionary* payload);

/// Counts every age from the time given on: replaces the times when the events were reported, which whoever
/// packed them has put in the ages' place.
///   events  as packEvent() made them
void replaceTimesByAges(std::span<std::uint8_t> events, std::uint64_t now);

/// Takes packed events apart, whatever the bytes hold.
class PackedEventReader {
  public:
    enum class Step {
        Event,  ///< event() holds it.
        Wrong,  ///< failure() says why it is none; there may be further ones.
        End,
    };

    /// Oldest event that is taken.
    static constexpr std::chrono::microseconds kMaximumAge = std::chrono::hours(24 * 366);

    /// The bytes must outlive the reader.
    explicit PackedEventReader(std::span<const std::uint8_t> bytes) : _rest(bytes) {}

    Step next();
    PackedEvent& event() { return _event; }
    const char* failure() const { return _failure; }

  private:
    Step fail(const char* why);

    std::span<const std::uint8_t> _rest;
    PackedEvent _event;
    const char* _failure = "";
};

}  // namespace quorvane
