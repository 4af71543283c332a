#pragma once

namespace quorvane::platform {

/// Puts the calling thread, and the threads that it starts later, in the utility class: work that matters but
/// that nobody waits for. It yields to interactive work, on the processor (nice 5) and on disks (best-effort
/// I/O priority 6). A refusal by the system is logged and changes nothing else.
void setQualityOfServiceUtility();

}  // namespace quorvane::platform
