#pragma once

#include "platform/base/MemoryBudget.h"

#include <cstddef>
#include <optional>
#include <string>

namespace quorvane {

/// Room in memory for something that is uploaded to the server of that URL, until the answer's end. Waits, at
/// most ten minutes, while there is too little: uploads to one server wait for each other, and for those to
/// others only when all together are large. Small ones never wait for large ones. Thread-safe.
std::optional<platform::MemoryBudget::Reservation> uploadRoom(const std::string& url, std::size_t bytes);

/// For the daemon's end: from now on nobody waits for room or for a server's answer to an upload or download.
void cancelTransfers();

}  // namespace quorvane
