#include "platform/system/ProcessTransaction.h"

#include <systemd/sd-daemon.h>

#include <atomic>
#include <cassert>

namespace quorvane::platform {

namespace {

std::atomic<int> openTransactions{0};

}  // namespace

void beginProcessTransaction() {
    if (openTransactions.fetch_add(1) == 0) ::sd_notify(0, "STATUS=Serving clients.");
}

void endProcessTransaction() {
    const int open = openTransactions.fetch_sub(1);
    assert(open > 0 && "below zero the daemon would look idle while it serves, and lose posts at its end");
    if (open == 1) ::sd_notify(0, "STATUS=Idle.");
}

bool processTransactionOpen() {
    return openTransactions.load() > 0;
}

}  // namespace quorvane::platform
