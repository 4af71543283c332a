#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace quorvane::platform {

/// read(2) and write(2), repeated until all is done: both take a part of the bytes at times, and both return
/// early at a signal. For descriptors that block, and files.

/// Reads from that place of a file until the bytes are full or the file ends; the descriptor's own offset
/// stays. How many bytes there were; nothing on an error, which errno tells.
std::optional<std::size_t> readAt(int descriptor, std::span<std::uint8_t> bytes, std::uint64_t offset);

/// How many of the bytes went in: fewer than all on an error, which errno tells.
std::size_t writeAll(int descriptor, std::span<const std::uint8_t> bytes);

}  // namespace quorvane::platform
