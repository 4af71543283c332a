#pragma once

#include <systemd/sd-bus.h>

namespace quorvane::platform {

/// Answers what stock D-Bus tools ask of a bus driver (org.freedesktop.DBus) on a connection that has none,
/// so that they can talk to a peer. Negative errno on failure.
int addBusDriver(sd_bus* bus);

}  // namespace quorvane::platform
