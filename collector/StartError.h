#pragma once

#include <stdexcept>

namespace quorvane::collector {

/// Why the collector cannot start, as a text for the person who started it. Thrown while the parts are put
/// together, never once it serves.
struct StartError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace quorvane::collector
