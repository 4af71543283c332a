#pragma once

#include "platform/base/Owned.h"

#include <systemd/sd-bus.h>

namespace quorvane::platform {

/// A share of a message.
using BusMessage = Owned<sd_bus_message, ::sd_bus_message_unref>;

}  // namespace quorvane::platform
