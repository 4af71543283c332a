#pragma once

#include "backends/EventMonitor.h"
#include "platform/base/Result.h"
#include "platform/bus/BusConnection.h"
#include "platform/value/Value.h"

namespace quorvane {

/// How a client watches events: docs/DBUS.md tells of its filter and of the signals.

/// The filter as the client gave it; an error that names a key which is unknown or of a wrong type.
platform::Result<EventMonitor::Filter> monitorFilter(const Dictionary& asked);

/// Sends the connection's client a signal of all that it is told. A client that does not read, so that too
/// much waits for it (BusConnection::queueCall), is cut off: what it missed it would not know.
EventMonitor::Told eventSender(platform::BusConnection& connection);

}  // namespace quorvane
