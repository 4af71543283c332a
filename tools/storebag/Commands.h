#pragma once

#include "tools/storebag/StorebagOptions.h"

namespace quorvane::tools {

/// Each does what its command says, prints what comes of it and gives the status that the program ends with.
/// They throw a Failure when it cannot be done.
int run(const Keygen& command);
int run(const Sign& command);
int run(const Verify& command);
int run(const Inspect& command);

}  // namespace quorvane::tools
