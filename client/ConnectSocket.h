#pragma once

#include "platform/UniqueDescriptor.h"

#include <quorvane/Client.h>

#include <string>

namespace quorvane::client {

/// A connection to the listening Unix socket at the path; waits within the timeout while its backlog is full.
Result<platform::UniqueDescriptor> connectSocket(const std::string& path, Timeout timeout);

}  // namespace quorvane::client
