#pragma once

#include "tools/ctl/CtlOptions.h"
#include "tools/ctl/doctor/Finding.h"

#include <sys/types.h>

#include <optional>

namespace quorvane::ctl {

/// The checks of the doctor, each of which says at least one thing. They use the daemon's own readers.

/// Every file under /etc/quorvane but the certificates: whether it is read, and whether each of its keys is.
Findings checkConfiguration();

/// The key that storebags are verified with, the framework's version and the certificates trusted.
Findings checkTrust();

/// The device's clock and identifier.
Findings checkDevice();

/// The sandbox profile, applied for a trial in a process that ends then. No other thread may run yet.
Findings checkSandbox();

/// Whether the daemon's user can read the files; nothing where that cannot be tried, which needs root.
///   process  the daemon's, where there is one
Findings checkAccess(std::optional<pid_t> process);

/// The daemon: socket, answer, confinement, and the country and consent that it sees. Each storebag that it
/// was asked for: what its last attempt to fetch it brought, and what one brings now.
Findings checkDaemon(const DaemonOptions& options);

}  // namespace quorvane::ctl
