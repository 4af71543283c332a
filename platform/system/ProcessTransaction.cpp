#include "platform/system/ProcessTransaction.h"

#include <systemd/sd-daemon.h>

#include <atomic>

namespace quorvane::platform {

namespace {

std::atomic<int> openTransactions{0};

}  // namespace

void beginProcessTransaction() {
    if (openTransactions.fetch_add(1) == 0) ::sd_notify(0, "STATUS=Serving clients.");
}

void endProcessTransaction() {
    if (openTransactions.fetch_sub(1) == 1) ::sd_notify(0, "STATUS=Idle.");
}

bool processTransactionOpen() {
    return openTransactions.load() > 0;
}

}  // namespace quorvane::platform
