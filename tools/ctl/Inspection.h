#pragma once

#include "platform/value/Value.h"
#include "tools/ctl/CtlOptions.h"

#include <string>
#include <string_view>
#include <vector>

namespace quorvane::ctl {

/// What the daemon tells of itself, by keys that docs/DBUS.md explains.
struct Inspection {
    Dictionary statistics;
    std::vector<Dictionary> sessions;
    std::vector<Dictionary> storebags;
};

/// A date as JSON has it, without the quotation marks; "never" where there is none.
std::string dateUnder(const Dictionary& facts, std::string_view key);

/// Whether this program opened it.
bool isOwn(const Dictionary& session);

/// Asks the daemon. Throws a Failure when it does not answer.
Inspection inspect(const DaemonOptions& options);

}  // namespace quorvane::ctl
