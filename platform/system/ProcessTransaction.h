#pragma once

namespace quorvane::platform {

/// Tells the launcher that work is pending (sd_notify(3)). Begins and ends are counted; thread-safe.
void beginProcessTransaction();
void endProcessTransaction();
bool processTransactionOpen();

}  // namespace quorvane::platform
