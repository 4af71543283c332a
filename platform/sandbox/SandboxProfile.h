#pragma once

#include "platform/base/Result.h"
#include "platform/value/Value.h"

#include <string>
#include <vector>

namespace quorvane::platform {

/// What a profile allows below a path; everything else there is refused.
enum class SandboxAccess {
    Read,    ///< Open files, list folders.
    Write,   ///< Read, and make, change and remove files and folders.
    Load,    ///< Open files (to map code), but not list folders.
    Socket,  ///< Make and remove sockets.
};

struct SandboxPath {
    std::string path;
    SandboxAccess access;
    /// The product's own: made as a folder when it is absent. A system path that is absent is left out.
    bool product;
};

struct SandboxRefusal {
    std::string name;
    int systemCall;
    int error;  ///< EPERM or ENOSYS.
};

/// A sandbox profile. Its TOML file:
///
///     [product]                                   # these paths follow QUORVANE_ROOT
///     read = ["/etc/product"]                     # also: write, load, socket
///     [system]                                    # these stand as they are
///     read = ["/usr/lib"]
///     [refuse]                                    # system calls, by the error they get
///     EPERM = ["execve"]
///     ENOSYS = ["clone3"]
///
/// A refused clone is refused for processes only: threads can still be started.
struct SandboxProfile {
    std::vector<SandboxPath> paths;
    std::vector<SandboxRefusal> refusals;
};

/// The profile in a TOML file's values. A key or system call that is not known, a value of the wrong type, a
/// relative path, or a rule that would keep threads from starting is an error that names the key.
Result<SandboxProfile> sandboxProfile(const Dictionary& settings);

}  // namespace quorvane::platform
