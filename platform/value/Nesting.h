#pragma once

#include "platform/value/Value.h"

namespace quorvane::platform {

/// How deep a value nests is counted in the D-Bus containers that stand in each other when it is written,
/// whatever it was read from: what came in typed containers is handed on with a variant around each element.
///
/// D-Bus allows 64 in a message, and a payload, which may be absent, stands in an array.
inline constexpr unsigned kMaximumContainers = 63;

/// The containers that a value of the kind puts around each of its own.
constexpr unsigned containersOf(Value::Kind kind) {
    switch (kind) {
        case Value::Kind::Dictionary:
            return 3;  // Array, entry and variant.
        case Value::Kind::Array:
            return 2;  // Array and variant.
        case Value::Kind::Date:
        case Value::Kind::Data:
            return 1;
        default:
            return 0;
    }
}

}  // namespace quorvane::platform
