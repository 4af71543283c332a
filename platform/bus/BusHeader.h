#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace quorvane::platform {

/// D-Bus messages as they lie on the wire, as far as a connection must know them before the bus library has
/// read them.

/// What every message begins with.
struct BusHeader {
    static constexpr std::size_t kBytes = 16;
    /// Longest fields (path, names, signature) that are taken; those of all messages that mean anything here
    /// together have about a third of it. The bus library repeats them in its errors.
    static constexpr std::size_t kMaximumFieldBytes = 4096;

    bool isForeignEndian;
    std::uint8_t type;
    std::uint8_t flags;
    std::uint32_t serial;
    std::size_t fieldBytes;
    std::size_t messageBytes;  ///< From the header's first byte to the body's last.
};

/// Nothing when no message begins with these bytes, or one that is larger than D-Bus allows.
///   bytes  the first 16 of a message
std::optional<BusHeader> readBusHeader(std::span<const std::uint8_t> bytes);

/// A call. Its texts and its body lie in the message.
struct BusCall {
    std::string_view path, interface, member, signature;
    std::uint32_t serial = 0;
    std::uint32_t descriptors = 0;
    bool expectsReply = false;
    bool isForeignEndian = false;
    bool hasOtherFields = false;  ///< Which are skipped.
    std::span<const std::uint8_t> body = {};
};

/// Nothing when the message, which is whole, is anything else or malformed.
std::optional<BusCall> readBusCall(std::span<const std::uint8_t> message);

/// Whether the call's body is the index of the one descriptor that it brings.
bool bringsOneFile(const BusCall& call);

}  // namespace quorvane::platform
