#pragma once

#include "platform/base/UniqueDescriptor.h"

#include <systemd/sd-bus.h>

#include <string>

namespace quorvane::platform {

/// Stands between a client and the bus library until the client is authenticated, and hands over a line at a
/// time: the library reads as far as it can, and what follows the last line must be looked at first
/// (BusInput.h). It also agrees to descriptors in the library's place, which is told nothing of them and so
/// refuses any. Belongs to the connection's thread.
class BusAuthentication {
  public:
    /// The bus's input until the end of authentication; none when descriptors have run out.
    UniqueDescriptor makeInput();

    /// Hands over what the client has sent, and the library answers it.
    ///   client  the client's socket
    /// 0 when more must come, more when the client is authenticated, negative errno when it never will be.
    int process(sd_bus* bus, int client);

    /// Has a bus whose client is authenticated already, or gone, believe it. Negative errno when it fails.
    int skip(sd_bus* bus);

  private:
    int takeLine(int client);
    int handOver(sd_bus* bus, int client);
    int give(sd_bus* bus, std::string_view bytes);

    UniqueDescriptor _toBus;
    std::string _line;
};

}  // namespace quorvane::platform
