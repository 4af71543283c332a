#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace quorvane {

/// The name of the storebag that a client type is configured from; nothing for a type without one, which is
/// every type but 5 to 11. Types 7 and 11 share one.
std::optional<std::string> storebagNameForClientType(std::int32_t clientType);

}  // namespace quorvane
