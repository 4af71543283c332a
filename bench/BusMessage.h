#pragma once

#include "platform/base/Owned.h"
#include "platform/bus/BusMessage.h"
#include "platform/value/Value.h"

#include <systemd/sd-bus.h>

#include <string>

namespace quorvane::bench {

/// Ends the program when the bus library's result is an error.
int checkBus(int result, const char* what);

using Bus = platform::Owned<sd_bus, ::sd_bus_close_unref>;
using platform::BusMessage;

/// A bus that goes nowhere; messages can be made for it.
Bus makeBus();
/// The bus of a peer that listens at the path.
Bus connectBus(const std::string& socketPath);

/// A call of "Echo" that carries the dictionary as a{sv}.
BusMessage makeCall(sd_bus* bus, const Dictionary& dictionary);
/// The same, closed for reading.
BusMessage makeReadableCall(sd_bus* bus, const Dictionary& dictionary);

/// Reads every value of such a call with the bus library, and keeps none; how many there were.
int readAllValues(sd_bus_message* message);

}  // namespace quorvane::bench
