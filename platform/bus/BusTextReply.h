#pragma once

#include <cstdint>
#include <string>

namespace quorvane::platform {

/// Writes the reply to a call, one as with the text or with nothing, to a socket on which nothing is half
/// written, past the bus library, which takes a dozen allocations for one. False when nothing was written:
/// the text is none for a bus or too long for this way, or the socket takes nothing now.
bool writeTextReply(int socket, std::uint32_t serial, const std::string* text);

}  // namespace quorvane::platform
