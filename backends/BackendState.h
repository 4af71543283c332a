#pragma once

#include <cstdint>

namespace quorvane {

/// Whether a backend reports. Parent synchronisation leaves SampledOut alone.
enum class BackendState : std::int32_t { WaitingForUserInfo = 0, Disabled = 1, Enabled = 2, SampledOut = 3 };

}  // namespace quorvane
