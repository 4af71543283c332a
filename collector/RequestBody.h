#pragma once

#include "collector/Response.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

namespace quorvane::collector {

/// How reading a body ended.
enum class BodyResult {
    Whole,
    TooLarge,  ///< more bytes than the limit, as sent or unpacked
    Damaged,   ///< no gzip stream, or not all of one
    Cut,       ///< the sender stopped before the end
    NotTaken   ///< take answered false: the bytes cannot be kept
};

/// Hands pieces of a body to the function it is given, which answers false to stop; false when the body did
/// not come to its end.
using BodySource = std::function<bool(const std::function<bool(const char*, std::size_t)>&)>;

/// Reads a body to its end, whatever is wrong with it, so that the connection can go on; gives it to take
/// piece by piece, unpacked when it is packed, at most so many bytes as the limit.
BodyResult readBody(const BodySource& source, bool packed, std::uint64_t limit,
                    const std::function<bool(std::string_view)>& take);

/// What a body that did not end well is answered with; nothing for a whole one.
std::optional<Response> bodyRefusal(BodyResult result);

}  // namespace quorvane::collector
