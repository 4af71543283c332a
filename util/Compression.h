#pragma once

#include "platform/Value.h"

#include <optional>
#include <span>

namespace quorvane {

/// One deflate stream of the whole input at zlib's default level, with the gzip (RFC 1952) or the zlib
/// (RFC 1950) wrapper. Nothing, and an error line, when the input is empty or zlib fails.
std::optional<Data> compressDataWithZlibOrGzip(bool gzip, std::span<const std::uint8_t> input);

/// The gzip form.
std::optional<Data> gzipDeflate(std::span<const std::uint8_t> input);

}  // namespace quorvane
