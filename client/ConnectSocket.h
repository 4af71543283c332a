#pragma once

#include "client/Deadline.h"
#include "platform/base/UniqueDescriptor.h"

#include <quorvane/Result.h>

#include <string>

namespace quorvane::client {

/// A connection to the listening Unix socket at the path; waits until the deadline while its backlog is
/// full.
Result<platform::UniqueDescriptor> connectSocket(const std::string& path, const Deadline& deadline);

}  // namespace quorvane::client
