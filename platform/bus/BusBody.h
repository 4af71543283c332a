#pragma once

#include "platform/value/Value.h"

#include <cstdint>
#include <optional>
#include <span>

namespace quorvane::platform {

/// Reads a message's body, one a{sv} in this machine's byte order, as it lies on the wire, where it holds
/// nothing but texts, numbers and dictionaries, as nearly all events do. Nothing when there is anything else
/// in it, or anything that the bus library might refuse: the library reads that, and tells what is wrong.
std::optional<Dictionary> readPlainDictionary(std::span<const std::uint8_t> body);

}  // namespace quorvane::platform
